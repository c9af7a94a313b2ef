"""Line editing at a terminal: completion and history, through a pseudo-terminal."""
import os
import pty
import select
import time

from conftest import KEP


def read_until(fd, marker, timeout=10.0):
    data = b""
    end = time.time() + timeout
    while marker not in data and time.time() < end:
        r, _, _ = select.select([fd], [], [], 0.2)
        if r:
            try:
                chunk = os.read(fd, 4096)
            except OSError:
                break
            if not chunk:
                break
            data += chunk
    return data


def spawn(tmp_path):
    pid, fd = pty.fork()
    if pid == 0:
        os.chdir(tmp_path)
        os.execve(str(KEP), [str(KEP)], {"HOME": str(tmp_path), "TERM": "xterm", "PATH": "/usr/bin:/bin"})
    return pid, fd


def finish(pid, fd):
    os.write(fd, b"quit\r")
    read_until(fd, b"\x00", timeout=2)
    end = time.time() + 60  # a kep that does not quit fails the test instead of hanging the suite
    while (done := os.waitpid(pid, os.WNOHANG))[0] == 0 and time.time() < end:
        time.sleep(0.05)
    os.close(fd)
    if done[0] == 0:
        os.kill(pid, 9)
        os.waitpid(pid, 0)
        raise AssertionError("kep did not quit")
    return os.waitstatus_to_exitcode(done[1])


def test_tab_completes_and_history_recalls_within_and_across_sessions(tmp_path):
    pid, fd = spawn(tmp_path)
    assert b"kep > " in read_until(fd, b"kep > ")
    os.write(fd, b"show nifti-me\t\r")
    assert b"\tnifti-method    3" in read_until(fd, b"nifti-method    3")
    os.write(fd, b"\x1b[A\r")  # Up, then Enter: the same command again
    assert b"nifti-method    3" in read_until(fd, b"nifti-method    3")
    os.write(fd, b"set io-incr\t 5\r")
    read_until(fd, b"kep > ")
    os.write(fd, b"show-st\t\r")
    assert b"Warning: No volumes exist in memory." in read_until(fd, b"memory.")
    assert finish(pid, fd) == 1
    history = (tmp_path / ".kep_history").read_text()
    assert "show nifti-method" in history and "set io-increment" in history
    # a new session recalls the last one's lines: two steps up, past its quit
    pid, fd = spawn(tmp_path)
    read_until(fd, b"kep > ")
    os.write(fd, b"\x1b[A\x1b[A\r")
    assert b"Warning: No volumes exist in memory." in read_until(fd, b"memory.")
    finish(pid, fd)

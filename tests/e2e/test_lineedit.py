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
    _, status = os.waitpid(pid, 0)
    os.close(fd)
    return os.waitstatus_to_exitcode(status)


def test_tab_completes_commands_and_variables_and_up_recalls(tmp_path):
    pid, fd = spawn(tmp_path)
    assert b"kep > " in read_until(fd, b"kep > ")
    os.write(fd, b"show nifti-me\t\r")
    out = read_until(fd, b"nifti-method    3")
    assert b"\tnifti-method    3" in out
    os.write(fd, b"\x1b[A\r")  # Up, then Enter: the same command again
    out = read_until(fd, b"nifti-method    3")
    assert b"nifti-method    3" in out
    os.write(fd, b"set io-incr\t 5\r")
    read_until(fd, b"kep > ")
    os.write(fd, b"show-st\t\r")
    out = read_until(fd, b"memory.")
    assert b"Warning: No volumes exist in memory." in out
    assert finish(pid, fd) == 1
    history = (tmp_path / ".kep_history").read_text()
    assert "show nifti-method" in history
    assert "set io-increment" in history


def test_history_survives_sessions(tmp_path):
    pid, fd = spawn(tmp_path)
    read_until(fd, b"kep > ")
    os.write(fd, b"show io-increment\r")
    read_until(fd, b"io-increment    0")
    finish(pid, fd)
    pid, fd = spawn(tmp_path)
    read_until(fd, b"kep > ")
    os.write(fd, b"\x1b[A\x1b[A\r")  # skip the last session's quit
    out = read_until(fd, b"io-increment    0")
    assert b"\tio-increment    0" in out
    finish(pid, fd)

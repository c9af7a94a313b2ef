"""Every command with nonsense arguments: messages and results, never a signal, sanitizer report or hang."""
import subprocess

import numpy as np
import pytest

from conftest import KEP, SOURCE, command_words, write_xdisplay


COMMANDS = command_words()
ARGUMENTS = ["", "nosuch", "one", "nanst", "empty", "0 one", "-1 small", "1e30 small", "abc small",
             "x y small", "nan small>0", "3 out small>n-0", "small>1,,2", "glm", "2147483647 big small"]
# Stacks and files the commands can act on; the overlay starts empty.
SETUP = ("read one.bfloat one\nread nanst.bfloat nanst\nread small.bfloat small\n"
         "read small.bfloat empty\n")


@pytest.fixture(scope="module")
def workdir(tmp_path_factory):
    d = tmp_path_factory.mktemp("torture")
    write_xdisplay(d, "one.bfloat", np.ones((1, 1, 1, 1)))
    write_xdisplay(d, "nanst.bfloat", np.full((3, 2, 2, 3), np.nan))
    write_xdisplay(d, "small.bfloat", np.random.default_rng(1).normal(size=(4, 4, 3, 5)))
    (d / "empty.ovl").write_text("")
    return d


@pytest.mark.parametrize("command", COMMANDS)
def test_every_argument_at_the_prompt(workdir, command):
    lines = "".join(f"{command} {a}\n" for a in ARGUMENTS if command not in ("bye", "quit", "stop", "exit"))
    answers = "q\n" * 5 if command == "help" else ""
    proc = subprocess.run([str(KEP)], input=(SETUP + lines + answers + "show-stacks\nquit\n").encode(),
                          cwd=workdir, capture_output=True, timeout=120, env={"KEP_HOME": str(SOURCE)})
    err = proc.stderr.decode("utf-8", "replace")
    assert "Sanitizer" not in err and "runtime error" not in err, err[-3000:]
    assert proc.returncode == 1, f"status {proc.returncode}\n{err[-2000:]}"  # not a signal


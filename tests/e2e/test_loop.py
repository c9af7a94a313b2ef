"""The command loop, command files and `$` substitution, seen from outside."""
import subprocess

import pytest

from conftest import KEP


def test_command_file_substitution_and_echo(kep):
    r = kep.script("show io-increment # $9 is a comment\nset io-increment $1\nshow io-increment\n", "4")
    assert r.returncode == 1
    # the comment cut takes the newline with it, so the echo runs into the output
    assert r.stdout == ("kep > show io-increment \tio-increment    0\n"
                        "kep > set io-increment 4\n"
                        "kep > show io-increment\n\tio-increment    4\n"
                        "kep > ")
    assert r.stderr == ""


@pytest.mark.parametrize("words,stdout,stderr", [
    (["run.com", "x", "y"], "kep > set io-increment $3\n",
     "Fatal error: The argument $3 exceeds the number of passed arguments (2).\nProgram aborted.\n"),
    (["bad.com"], None, "Fatal error: The replacement specification is invalid.\nProgram aborted.\n"),
    (["nothere.com"], "", "Fatal error: I cannot open the kep command file nothere.com.\nProgram aborted.\n"),
])
def test_fatal_ends_of_a_command_file(kep, words, stdout, stderr):
    kep.path("run.com").write_text("set io-increment $3\nshow io-increment\n")
    kep.path("bad.com").write_text("show $\n")
    p = subprocess.run([str(KEP), *words], cwd=kep.dir, capture_output=True)
    assert p.returncode == 1
    assert stdout is None or p.stdout.decode() == stdout
    assert p.stderr.decode() == stderr


def test_mode_words_and_nesting(kep):
    (kep.dir / "inner.com").write_text("show io-increment\n")
    (kep.dir / "outer.com").write_text("set io-increment $1\nmode inner.com\nmode inner.com\nshow $9\n")
    r = kep.stdin("mode outer.com 3\nshow io-increment\n")
    assert "kep > set io-increment 3\n" in r.stdout
    assert r.stdout.count("\tio-increment    3\n") == 3
    assert "The argument $9 exceeds the number of passed arguments (8)." in r.stderr


def test_nested_mode_is_refused(kep):
    (kep.dir / "c.com").write_text("show io-increment\n")
    (kep.dir / "b.com").write_text("mode c.com\nshow nifti-method\n")
    (kep.dir / "a.com").write_text("mode b.com\n")
    r = kep.stdin("mode a.com\n")
    assert "Error: nested kep command files are not yet allowed.\n" in r.stdout
    assert "\tnifti-method    3\n" in r.stdout


def test_comment_and_parenthesis_lines_do_nothing(kep):
    r = kep.stdin("( anything at all\n# nothing\n\n   \nquit\n")
    assert r.stdout == "kep > " * 5
    assert r.stderr == ""


def test_long_lines_are_read_in_pieces(kep):
    r = kep.stdin("x" * 3000 + "\nquit\n")
    # 3000 characters and the newline make three pieces of at most 1023
    assert r.stderr.count("Error: The command was not found.\n") == 3
    assert r.returncode == 1


def test_end_of_input_ends_cleanly(kep):
    r = kep.stdin("show nifti-method\n")
    assert r.returncode == 1
    assert r.stdout == "kep > \tnifti-method    3\nkep > "

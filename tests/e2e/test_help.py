"""The help menu reader on small menu files."""
import subprocess

import pytest

from conftest import KEP

MENU = """!0 0
Main menu
 1 files
 2 maths
!1 0
Files menu
 1 read
!1 1
read <file> : reads a file
!2 0
Maths menu
 1 add
 2 abs
!2 1
add text
!2 2
abs text
"""
FOOTER = ("----------------------------------------------\n"
          "--- choose item: 0 = main menu, return = back \n"
          "----------------------------------------------\n")
MAIN, MATHS = "Main menu\n 1 files\n 2 maths\n" + FOOTER, "Maths menu\n 1 add\n 2 abs\n" + FOOTER
OWN = "Main menu\n" + FOOTER
BAD = "Bad option. Choose '0', 'b', 'q', or a number from 1 to 2\n"


def run(tmp_path, menu, answers, home=True):
    """(stdout, stderr, path of the menu file) of `help` then `answers`."""
    doc = tmp_path / "documentation"
    doc.mkdir(exist_ok=True)
    (doc / "kep-menu.txt").write_text(menu)
    env = {"PATH": "/usr/bin:/bin", **({"KEP_HOME": str(tmp_path)} if home else {})}
    p = subprocess.run([str(KEP)], input=("help\n" + answers).encode(), cwd=tmp_path, capture_output=True, env=env)
    return p.stdout.decode(), p.stderr.decode(), doc / "kep-menu.txt"


@pytest.mark.parametrize("menu,answers,pages", [
    # answers are read as scanf reads a number ("2nd" is 2, "00" is 0); an empty one at the top leaves
    (MENU, "2nd\n2\nb\n7\nx\n1st\n00\n\nshow io-increment\nquit\n",
     [MAIN, "help > ", MATHS, "help >> ", "abs text\n", FOOTER, "help >> ", MATHS, "help >> ", BAD, MATHS,
      "help >> ", BAD, MATHS, "help >> ", "add text\n", FOOTER, "help >> ", MAIN, "help > ",
      "kep > \tio-increment    0\nkep > "]),
    # a main menu whose items are its own sections
    ("!0 0\nMain menu\n!0 1\nfirst item\n!0 2\nsecond item\n", "7\n1\nb\nq\nquit\n",
     [OWN, "help > ", BAD, OWN, "help > ", "first item\n", FOOTER, "help >> ", OWN, "help > ", "kep > "]),
])
def test_navigation_through_menus_and_items(tmp_path, menu, answers, pages):
    out, err, path = run(tmp_path, menu, answers)
    assert out == f"kep > Help from file {path}\n" + "".join(pages)
    assert err == ""


def test_out_of_order_sections_are_reported(tmp_path):
    out, _, path = run(tmp_path, "!0 0\nmain\n!0 1\none\n!0 3\nthree\n", "quit\n")
    assert f"Warning: menu entry 2 in file {path} is 0 3,\nbut it should be either 0 2 or 1 1,\n" in out
    assert "help >" not in out


def test_missing_home_and_missing_file(tmp_path):
    out, _, _ = run(tmp_path, MENU, "quit\n", home=False)
    assert "For help, quit and define the environment variable KEP_HOME, and then re-start.\n" in out
    env = {"PATH": "/usr/bin:/bin", "KEP_HOME": str(tmp_path / "nowhere")}
    out = subprocess.run([str(KEP)], input=b"help\nquit\n", cwd=tmp_path, capture_output=True, env=env).stdout.decode()
    assert f"Error: cannot open the file {tmp_path}/nowhere/documentation/kep-menu.txt.\n" in out
    assert f"The environment variable KEP_HOME is set to {tmp_path}/nowhere\n" in out
    assert "If this is incorrect, quit, define this environment variable, and re-start.\n" in out

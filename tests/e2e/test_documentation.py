"""The shipped help: the menu covers every command and reads cleanly; the paged text parses and is walked."""
import re
import subprocess

from conftest import KEP, SOURCE, command_words
from test_help import FOOTER

MENU = SOURCE / "documentation" / "kep-menu.txt"
PAGES = SOURCE / "documentation" / "kep-pages.txt"
PAGE_FOOTER = ("             _________________________________________________________ \n"
               "            |  q = quit     m = menu          n = next       b = back |\n"
               "            |__________________________<return> = next________________|\n"
               "volume help >>")
ITEM_LINE = re.compile(r"^\s+(\d+)\s{2,}(\S.*?)(?:\s{2,}\S.*)?$")


def sections(path, fields):
    """(key tuple, lines) for every header line "!n n [n]" of a help file."""
    out = []
    for line in path.read_text().splitlines(keepends=True):
        if line.startswith("!"):
            key = tuple(int(w) for w in line[1:].split()[:fields])
            assert len(key) == fields, line
            out.append((key, []))
        else:
            out[-1][1].append(line)
    return out


SECTIONS = dict(sections(MENU, 2))


def listed_items(lines):
    """Item number -> title of the numbered lines of a menu page."""
    return {int(m.group(1)): m.group(2) for m in (ITEM_LINE.match(line.rstrip("\n")) for line in lines) if m}


def run_help(answers):
    p = subprocess.run([str(KEP)], input=("help\n" + answers + "quit\n").encode(), capture_output=True,
                       env={"PATH": "/usr/bin:/bin", "KEP_HOME": str(SOURCE)}, timeout=60)
    return p.stdout.decode(), p.stderr.decode()


def test_every_command_and_macro_has_a_menu_item():
    names = command_words()
    assert len(set(names)) == len(names) and "reorder-interleaved-slices" in names
    titled = {}
    for (m, i), lines in SECTIONS.items():
        if m >= 1 and i == 0:
            for number, title in listed_items(lines).items():
                for name in title.split(", "):
                    titled.setdefault(name, []).append(SECTIONS[(m, number)])

    def documents(name, text):
        # The syntax line names the command, and the item says what to expect.
        return (any(re.match(re.escape(name) + r"(\s|$)", line) for line in text)
                and any(line.startswith("Example") for line in text))

    for name in names:
        assert name in titled, f"{name} has no menu item"
        assert any(documents(name, text) for text in titled[name]), name


def test_every_variable_is_in_the_menu():
    names = subprocess.run([str(KEP), "--list-variables"], capture_output=True, check=True,
                           timeout=60).stdout.decode().split()
    text = MENU.read_text()
    assert "threads" in names
    for name in names:
        assert re.search(r"(?<![\w-])" + re.escape(name) + r"(?![\w-])", text), name


def test_menu_pages_list_exactly_their_items_and_lines_are_short():
    # (the reader itself warns of sections out of order, which the walk below would show)
    keys = [key for key, _ in sections(MENU, 2)]
    assert len(keys) == len(SECTIONS), "a section appears twice"
    menus = sorted({m for m, _ in keys})
    assert sorted(listed_items(SECTIONS[(0, 0)])) == menus[1:]
    for m in menus[1:]:
        assert sorted(listed_items(SECTIONS[(m, 0)])) == sorted(i for mm, i in keys if mm == m and i > 0), m
    for path in (MENU, PAGES):
        for n, line in enumerate(path.read_text().splitlines(), 1):
            assert len(line) < 90, f"{path.name}:{n} is {len(line)} characters"


def test_every_menu_and_item_opens():
    pages = sections(PAGES, 3)
    first_page = "".join(pages[0][1])
    answers, expected = [], ["".join(SECTIONS[(0, 0)])]
    menus = sorted(m for m, i in SECTIONS if m > 0 and i == 0)
    for m in menus:
        page = "".join(SECTIONS[(m, 0)])
        answers.append(f"{m}\n")
        expected.append(page)
        for i in sorted(i for mm, i in SECTIONS if mm == m and i > 0):
            text = "".join(SECTIONS[(m, i)])
            if text.startswith("&pages"):
                answers.append(f"{i}\nq\n")
                expected.append(first_page + PAGE_FOOTER + page)
            else:
                answers.append(f"{i}\n\n")
                expected += [text, page]
        answers.append("\n")
        expected.append(expected[0])
    chunks = re.split(r"help >>? ", run_help("".join(answers) + "q\n")[0])
    assert chunks[0].startswith(f"kep > Help from file {MENU}\n")
    chunks[0] = chunks[0].split("\n", 1)[1]
    assert chunks[:-1] == [e + FOOTER for e in expected]
    assert chunks[-1] == "kep > "
    assert sum(1 for c in answers if c.startswith(tuple("0123456789"))) > 112


def test_paged_text_headers_and_structure():
    pages = sections(PAGES, 3)
    keys = [c * 10000 + s * 100 + u for (c, s, u), _ in pages]
    assert keys[0] == 0 and keys == sorted(set(keys))
    present = {key for key, _ in pages}
    for (c, s, u), _ in pages:
        assert (c, 0, 0) in present and (c, s, 0) in present
    text = dict(pages)
    chapters = sorted({c for c, _, _ in present if c > 0})
    assert sorted(listed_items(text[(0, 0, 0)])) == chapters
    for c in chapters:
        secs = sorted(s for cc, s, u in present if cc == c and s > 0 and u == 0)
        assert secs == list(range(1, len(secs) + 1))
        assert sorted(listed_items(text[(c, 0, 0)])) == secs, f"chapter {c}"


def test_paged_text_is_reached_and_walked_from_the_menu():
    glm, item = next(key for key, lines in SECTIONS.items() if key[1] > 0 and lines and lines[0].startswith("&pages"))
    text = dict(sections(PAGES, 3))
    # Chapter 1, its section 2, that section's first subsection, up twice, next page, back.
    out, err = run_help(f"{glm}\n{item}\n1\n2\n1\nm\nm\nn\nb\nq\nq\n")
    shown = [text[k] for k in [(0, 0, 0), (1, 0, 0), (1, 2, 0), (1, 2, 1), (1, 2, 0),
                               (1, 0, 0), (1, 1, 0), (1, 0, 0)]]
    assert "".join("".join(lines) + PAGE_FOOTER for lines in shown) in out
    assert "Error reading the direction integers" not in out + err

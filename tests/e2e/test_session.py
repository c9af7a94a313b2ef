"""A session: failing commands in command files, Ctrl-C, suggestions, help on one command, `show`,
quoted file names, warnings."""
import os
import signal
import threading
import time
from pathlib import Path

import nibabel as nib
import numpy as np
import pytest

import glm_model as gm
from conftest import KEP, KepSession, SOURCE, stack_line, write_nifti


@pytest.mark.parametrize("lines,word", [
    ("read nothing.nii x\n", "read"),
    ("set nifti-method 7\n", "set"),
    ("read-loop subj1.nii s\nread nothing.nii x\nend-loop\n", "read"),
])
def test_lines_of_mode_files_and_read_loops_follow_the_same_rule(kep, lines, word):
    write_nifti(kep.path("subj1.nii"), np.ones((2, 2, 2, 3)))
    kep.path("inner.com").write_text(lines + "show nifti-method\n")
    r = kep.stdin("mode inner.com\nshow io-increment\n")
    assert r.returncode == 1
    assert r.stderr.endswith(f"Fatal error: the command `{word}' failed.\nProgram aborted.\n")
    assert "nifti-method    " not in r.stdout and "io-increment" not in r.stdout


def cpu_ticks(pid):
    fields = Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return int(fields[11]) + int(fields[12])


def interrupt_when_busy(s, command, ticks=2):
    """Sends a command and Ctrl-C once kep (at the lowest priority) spent `ticks` of CPU on it."""
    before = cpu_ticks(s.proc.pid)
    s.proc.stdin.write(command.encode())
    s.proc.stdin.flush()
    end = time.time() + 300
    while cpu_ticks(s.proc.pid) < before + ticks:
        assert time.time() < end and s.proc.poll() is None
        time.sleep(0.001)
    s.proc.send_signal(signal.SIGINT)
    s.prompts += 1  # the prompt after the interrupted command


def session(kep, lines):
    s = KepSession(kep.dir, str(KEP), preexec_fn=lambda: os.nice(19))
    # a kep that never answers is ended, so that no read waits for ever
    watchdog = threading.Timer(600, s.proc.kill)
    watchdog.daemon = True
    watchdog.start()
    s.send(lines)
    return s


def test_ctrl_c_at_the_prompt_gives_a_fresh_prompt_and_keeps_the_stacks(kep):
    data = np.random.default_rng(2).random((4, 3, 2, 2))
    write_nifti(kep.path("a.nii"), data)
    s = session(kep, "read a.nii a\n")
    s.proc.send_signal(signal.SIGINT)
    s.prompts = 1  # Ctrl-C prompts again
    assert s.send("") == "\nkep > "
    s.send("write-float out.nii a\n")
    out, err, rc = s.finish()
    assert rc == 1 and err == ""
    np.testing.assert_array_equal(np.asanyarray(nib.load(kep.path("out.nii")).dataobj), data.astype(np.float32))


def test_a_second_ctrl_c_within_a_second_ends_kep(kep):
    s = session(kep, "show io-increment\n")
    s.proc.send_signal(signal.SIGINT)
    s.prompts = 1
    s.send("")
    s.proc.send_signal(signal.SIGINT)
    assert s.proc.wait(timeout=120) == -signal.SIGINT


def test_ctrl_c_stops_a_transform_and_names_the_stack_it_left_incomplete(kep):
    rng = np.random.default_rng(3)
    write_nifti(kep.path("a.nii"), rng.random((64, 64, 16, 2)))
    write_nifti(kep.path("b.nii"), rng.random((4, 4, 2, 2)))
    s = session(kep, "read a.nii a\nread b.nii b\n")
    # a long command on little memory; b, last in the list, is given pairs for the transform when the line is decoded
    # but never rewritten: a change of form is not a rewrite
    interrupt_when_busy(s, "transform-xyz" + " a" * 500 + " b\n")
    out = s.send("show-stacks\n")
    assert stack_line(out, "a") and stack_line(out, "b")
    out, err, rc = s.finish()
    assert rc == 1
    assert err.splitlines() == ["Error: interrupted.", "Warning: the stack a is incomplete: the command stopped "
                                "part-way through rewriting it."]


def test_ctrl_c_stops_a_glm_fit_and_removes_the_map_it_was_creating(kep):
    study = gm.Study(nimg=100, terms=3, header="AR 2 6\n")
    study.write(kep.dir, 100.0 + np.random.default_rng(4).standard_normal((40, 40, 16, 200)))
    s = session(kep, "read-GLM study.glm\n")
    interrupt_when_busy(s, "GLM-fit-events effects\n")
    out = s.send("show-stacks\n")
    assert stack_line(out, "glm")[:4] == ["40", "40", "16", "200"]
    assert stack_line(out, "effects") is None
    out, err, rc = s.finish()
    assert rc == 1 and err == "Error: interrupted.\n"


@pytest.mark.parametrize("word,suggestion", [
    ("raed", "Did you mean `read'?\n"),
    ("smooth3d", "Did you mean `smooth-3d'?\n"),
    ("transfrom-x", "Did you mean `transform-x'?\n"),
    ("pad-x-t", "Did you mean `pad-x-to'?\n"),
    ("pad-x-", "Did you mean `pad-x' or `pad-xy'?\n"),
    ("reorder-interleaved-slice", "Did you mean `reorder-interleaved-slices'?\n"),
    ("qiut", "Did you mean `quit'?\n"),
    ("Add", "Did you mean `add'?\n"),  # one letter's case is one edit; three are too far
    ("ADD", ""),
    ("smooth", ""),
    ("glm-fit", ""),
])
def test_an_unknown_command_suggests_the_closest_names(kep, word, suggestion):
    r = kep.stdin(f"{word} 2\n")
    assert r.stderr == "Error: The command was not found.\n"
    assert r.stdout == "kep > " + suggestion + "kep > "


def test_help_opens_a_commands_own_item(kep):
    r = kep.stdin("help smooth-3d\nq\nhelp no-such-command\nq\n")
    items = (SOURCE / "documentation" / "kep-menu.txt").read_text().split("\n!")
    smooth = next(i for i in items if i.split("\n", 1)[1].startswith("smooth-3d "))
    assert smooth.split("\n", 1)[1] in r.stdout.split("help >> ")[0]
    assert "There is no help item for `no-such-command'.\n" in r.stdout
    # without an item, the help starts at the main menu
    assert items[0].split("\n", 1)[1] in r.stdout.split("There is no help item")[1]


def test_show_without_a_name_shows_every_variable(kep):
    assert kep.stdin("set io-increment 2\nset filter-range 2 3\nset histogram 0 10 3\nshow\n").stdout.endswith(
        "kep > \toverlay-logic   replace\n\tcomplex-output  OFF\n\tio-increment    2\n\tslice-order     \n"
        "\tmap-array      \n\tarray-offset    0\tarray_scale    1\n\tfilter-range    2 3 (1)\n"
        "\t\t\tAlignment variables (rigid body)\n\t\t\t------------------\n"
        "\ttranslations        0 0 0\n\trotations           0 0 0\n\tinflations          1 1 1\n"
        "\tskews               0 0 0\n\tnifti-method    3\n\thistogram       0 10 3 (4 bins)\nkep > ")


def test_quoted_file_names_keep_their_blanks(kep):
    data = np.random.default_rng(7).random((3, 5, 2, 3))
    (kep.dir / "scans dir").mkdir()
    write_nifti(kep.path("scans dir/my scan.nii"), data)
    r = kep.stdin('read "scans dir/my scan.nii">1-2 s\nread "scans dir/my scan.nii"\n'
                  'write-float "out one.nii" s\nshow-stacks\n')
    assert r.stderr == ""
    # a name taken from the file cannot hold blanks: they become "_"
    assert stack_line(r.stdout, "scans_dir/my_scan")[:4] == ["3", "5", "2", "3"]
    got = np.asanyarray(nib.load(kep.path("out one.nii")).dataobj)
    np.testing.assert_array_equal(got, data[..., 1:].astype(np.float32))
    # words passed on the command line keep their blanks inside quotes
    r = kep.script('read "$1" t\nwrite-float "$2" t\n', "scans dir/my scan.nii", "out two.nii")
    assert "Fatal" not in r.stderr, r
    np.testing.assert_array_equal(np.asanyarray(nib.load(kep.path("out two.nii")).dataobj), data.astype(np.float32))


def patch_pixdim(path, index, value):
    """Sets pixdim[index] of a NIfTI-1 file in place (nibabel derives it from the affine)."""
    raw = bytearray(path.read_bytes())
    raw[76 + 4 * index:80 + 4 * index] = np.float32(value).tobytes()
    path.write_bytes(bytes(raw))


def glm_case(kep, tr=None, nan=0, **study):
    s = gm.Study(**study)
    data = 100.0 + np.random.default_rng(6).standard_normal((4, 3, 2, s.ntime))
    data.flat[[5, 200, 411][:nan]] = np.nan
    s.write(kep.dir, data)
    if tr is not None:
        patch_pixdim(kep.path("run0.nii"), 4, tr)


def stack_case(kep, nan=0, zooms=(2.0, 3.0, 4.0)):
    data = np.random.default_rng(7).random((7, 5, 3, 2))
    data.flat[[4, 40, 77][:nan]] = np.nan
    write_nifti(kep.path("s.nii"), data)
    for axis, size in enumerate(zooms):
        patch_pixdim(kep.path("s.nii"), axis + 1, size)


STIM = "Warning: Stimulus 2 of event 1 starts at 80 s, after the end of run 1 (80 s): it has no effect."
CUT = "Warning: Stimulus 2 of event 1 ends at 90.5 s, after the end of run 1 (80 s): its last 10.5 s are cut."
ZERO = "Warning: The regressor of event 2 is 0 at every image used: its effect cannot be estimated."
TR = "Warning: The TR of the event file (2 s) differs from the TR of the data header (2.03 s) by more than 1%."
NAN = "Warning: The stack {} holds 3 NaN samples given to `{}'."
VOXEL = "Warning: The voxel size of s is ({}) mm: smoothing cannot use a size of 0 or NaN."
GLM = "read-GLM study.glm\n"


@pytest.mark.parametrize("setup,script,expected", [
    (lambda k: glm_case(k, events={1: [(5, 17, 1), (80, 90, 1)]}, conditions="1", nruns=1), GLM, [STIM]),
    (lambda k: glm_case(k, events={1: [(5, 17, 1), (63, 80, 1)]}, conditions="1", nruns=1), GLM, []),
    (lambda k: glm_case(k, events={1: [(5, 17, 1), (70, 90.5, 1)]}, conditions="1", nruns=1), GLM, [CUT]),
    (lambda k: glm_case(k, tr=2.03), GLM, [TR]),
    (lambda k: glm_case(k, tr=2.019), GLM, []),
    (lambda k: glm_case(k, events={1: [(5, 17, 1)], 2: [(25, 37, 1)]}, exclude={0: [(10, 20)], 1: [(10, 20)]}),
     GLM, [ZERO]),
    (lambda k: glm_case(k, events={1: [(5, 17, 1)], 2: [(25, 37, 1)]}, exclude={0: [(10, 15)], 1: [(10, 20)]}),
     GLM, []),
    # the design rebuilt for each time constant repeats nothing
    (lambda k: glm_case(k, events={1: [(5, 17, 1)], 2: [(25, 37, 1)]}, exclude={0: [(10, 39)]}, nruns=1,
                        header="IRF BOLD-monkey\n"), GLM + "GLM-vary-tau 3 timing\n", [ZERO]),
    (lambda k: glm_case(k, nan=3), GLM + "average m glm\nGLM-fit-events e\n",
     [NAN.format("glm", "GLM-fit-events")]),
    # counted as read-GLM read them, and again after a command that changed them
    (lambda k: glm_case(k, nan=3), GLM + "GLM-fit-events e\n", [NAN.format("glm", "GLM-fit-events")]),
    (lambda k: glm_case(k, nan=3), GLM + "multiply-constant nan glm\nGLM-fit-events e\n",
     [NAN.replace("3", str(4 * 3 * 2 * 80)).format("glm", "GLM-fit-events")]),
    (lambda k: glm_case(k), GLM + "GLM-fit-events e\n", []),
    (lambda k: stack_case(k, nan=3), "read s.nii s\nsmooth-3d 5 s\n", [NAN.format("s", "smooth-3d")]),
    (lambda k: stack_case(k, nan=3), "read s.nii s\ntransform s s\n", [NAN.format("s", "transform")]),
    (lambda k: stack_case(k, nan=3), "read s.nii s\naverage m s\n", []),
    (lambda k: stack_case(k), "read s.nii s\nsmooth-3d 5 s\ntransform-xyz s\n", []),
    (lambda k: stack_case(k, zooms=(2.0, 0.0, 4.0)), "read s.nii s\nsmooth-3d 5 s\n", [VOXEL.format("2, 0, 4")]),
    (lambda k: stack_case(k, zooms=(2.0, 3.0, np.nan)), "read s.nii s\nsmooth-3d 5 s\n",
     [VOXEL.format("2, 3, nan")]),
    (lambda k: stack_case(k, zooms=(2.0, 3.0, 0.0)), "read s.nii s\nsmooth-2d 5 s\n", []),
])
def test_each_warning_appears_exactly_when_its_condition_holds(kep, setup, script, expected):
    setup(kep)
    r = kep.script(script)
    assert "Fatal" not in r.stderr, r.stdout
    assert [line for line in r.stderr.splitlines() if line.startswith("Warning:")] == expected


def test_show_stacks_names_nan_and_infinite_samples_only_when_there_are_some(kep):
    data = np.random.default_rng(8).random((3, 4, 5, 2))
    data.flat[[3, 50]] = np.nan
    data.flat[7] = -np.inf
    write_nifti(kep.path("bad.nii"), data)
    write_nifti(kep.path("good.nii"), np.ones(data.shape))
    out = kep.stdin("read bad.nii bad\nread good.nii good\nshow-stacks\n").stdout
    listing = out[out.index("stack name"):]
    assert "bad holds 2 NaN and 1 infinite samples.\n" in listing
    assert "good holds" not in listing
    assert stack_line(listing, "good")[:4] == ["3", "4", "5", "2"]


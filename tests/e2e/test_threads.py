"""GLM commands, transforms and smooth-3d write the same bytes and lines for any `set threads`."""
import subprocess
import sys

import numpy as np
import pytest

from conftest import SOURCE, write_complex

GLM_COMMANDS = ("read-GLM study.glm\nGLM-fit-events eff\nwrite-float eff.nii eff\n"
                "GLM-residual-variance var\nwrite-float var.nii var\nGLM-map-AR ar\nwrite-float ar.nii ar\n"
                "GLM-find-maximal-effect 1-2 mx\nwrite-float mx.nii mx\n"
                "GLM-residue 1 res\nwrite-float res.nii res\nGLM-correct-baseline\nwrite-float glm.nii glm\n"
                "write-overlay eff.ovl\nGLM-map-conditions cm\nwrite-float cm.nii cm\n")
GLM_OUTPUTS = ("eff.nii", "var.nii", "ar.nii", "mx.nii", "res.nii", "glm.nii", "eff.ovl", "cm.nii")


@pytest.mark.parametrize("ar", [0, 1, 2])
def test_glm_maps_are_the_same_bytes_for_every_thread_count(kep, ar):
    # 23 x 19 x 8 voxels: 14 blocks of fits, the last one short; a head with empty voxels around it.
    args = [sys.executable, str(SOURCE / "examples" / "make_study.py"), str(kep.dir), "23", "19", "8", "33"]
    if ar:
        args += ["--ar", str(ar)]
    subprocess.run(args, check=True, capture_output=True)
    results = []
    for n in (1, 2, 3):
        for name in GLM_OUTPUTS:
            kep.path(name).unlink(missing_ok=True)
        r = kep.script(f"set threads {n}\n" + GLM_COMMANDS)
        assert r.returncode in (0, 1) and "Fatal" not in r.stderr and "Error" not in r.stderr, r
        results.append((r.stdout.split("\n", 1)[1], [kep.path(name).read_bytes() for name in GLM_OUTPUTS]))
    one_stdout, one_files = results[0]
    assert "75 percent done\n" in one_stdout and "An overlay of" in one_stdout
    assert np.abs(np.frombuffer(one_files[0][352:], np.float32)).max() > 0
    for stdout, files in results[1:]:
        assert stdout == one_stdout
        for name, one, other in zip(GLM_OUTPUTS, one_files, files):
            assert one == other, name


def test_transforms_and_smoothing_are_the_same_bytes_for_every_thread_count(kep):
    # One process: its transforms of one length all follow the plan measured first. 30 x 41 x 5 x 3 samples give every
    # axis, time too, more lines than one pass of the buffer holds.
    rng = np.random.default_rng(11)
    data = rng.normal(size=(3, 5, 41, 30)) + 1j * rng.normal(size=(3, 5, 41, 30))
    write_complex(kep.path("a.bfloat"), data, resolution=(1.5, 2.25, 3.5))
    lines = ["set complex-output on"]
    for n in (1, 2, 3):
        lines += [f"set threads {n}", f"read a.bfloat a{n}", f"transform a{n}", f"write-float t{n}.bfloat a{n}",
                  f"inverse-transform-xyz a{n}", f"write-float i{n}.bfloat a{n}", f"transform-time a{n}",
                  f"write-float f{n}.bfloat a{n}", f"read a.bfloat b{n}", f"smooth-3d 4.5 b{n}>1",
                  f"write-float s{n}.bfloat b{n}"]
    r = kep.script("\n".join(lines) + "\n")
    assert "Error" not in r.stderr, r
    for stem in "tifs":
        one = kep.path(f"{stem}1.bfloat").read_bytes()
        assert len(one) == 2 * 4 * data.size
        for n in (2, 3):
            assert kep.path(f"{stem}{n}.bfloat").read_bytes() == one, stem


@pytest.mark.parametrize("value,message", [
    ("0", "Error: 0 is an invalid number of threads; use 1 to 256.\n"),
    ("257", "Error: 257 is an invalid number of threads; use 1 to 256.\n"),
    ("x", "Error: Syntax = `set threads <number>'.\n"),
])
def test_thread_counts_out_of_range_are_refused(kep, value, message):
    r = kep.stdin(f"set threads 3\nset threads {value}\nshow threads\nquit\n")
    assert message in r.stderr
    assert "\tthreads         3\n" in r.stdout

"""GLM commands over the stack "glm" on a small synthetic study."""
import subprocess
import sys

import nibabel as nib
import numpy as np
import pytest

from conftest import SOURCE
from io_files import write_xdisplay


def make_study(directory, ar=0):
    args = [sys.executable, str(SOURCE / "examples" / "make_study.py"), str(directory), "12", "12", "6", "30"]
    if ar:
        args += ["--ar", str(ar)]
    subprocess.run(args, check=True, capture_output=True)


def test_fit_events_maps_overlay_and_variance(kep):
    make_study(kep.dir)
    r = kep.script("read-GLM study.glm\nGLM-fit-events eff anything\nwrite-float eff.nii eff\n"
                   "GLM-residual-variance var\nGLM-map-AR ar\nGLM-find-maximal-effect 1-2 mx\nshow-stacks\n")
    assert r.returncode == 1
    assert "Fatal" not in r.stderr, r
    assert "stack eff contains 3 volumes in the following event order:\nevent 1\nevent 2\nevent 3\n" in r.stdout
    assert "An overlay of" in r.stdout and "hist[2] = " in r.stdout
    assert "stack mx contains 1 volume\n" in r.stdout
    assert "ar\r\t\t12\r\t\t\t12\r\t\t\t\t6\r\t\t\t\t\t40\r" in r.stdout  # 60 images: 40 lags
    eff = np.asanyarray(nib.load(kep.path("eff.nii")).dataobj)
    assert eff.shape == (12, 12, 6, 3)
    assert np.isfinite(eff).all() and np.abs(eff).max() > 0
    assert "25 percent done\n" in r.stdout


def test_ar_model_fits_inside_the_head_only(kep):
    make_study(kep.dir, ar=1)
    r = kep.script("read-GLM study.glm\nGLM-fit-events eff\nwrite-float eff.nii eff\n")
    assert "Fatal" not in r.stderr, r
    eff = np.asanyarray(nib.load(kep.path("eff.nii")).dataobj)
    glm = np.asanyarray(nib.load(kep.path("run1.nii")).dataobj)
    outside = (glm == 0).all(axis=3)
    assert (eff[outside] == 0).all()
    assert np.abs(eff[~outside]).max() > 0


def test_commands_need_glm_and_events(kep):
    r = kep.stdin("GLM-fit-events x\nGLM-remove-baseline\nquit\n")
    assert r.stderr.count("Error: Stack glm does not exist.\n") == 2


NAME_MISSING = "Error: A name for the volume to create is mandatory here.\n"


@pytest.mark.parametrize("line", ["GLM-fit-events", "GLM-residual-variance", "GLM-map-AR",
                                  "GLM-residue", "GLM-residue 1-2", "GLM-find-maximal-effect",
                                  "GLM-find-maximal-effect 1-2", "GLM-vary-tau", "GLM-vary-tau 3"])
@pytest.mark.parametrize("other_stack", [False, True])
def test_missing_own_word_is_reported_before_the_glm_list(kep, line, other_stack):
    setup = ""
    if other_stack:
        write_xdisplay(kep.dir, "a.bfloat", np.ones((2, 2, 1, 1)), "<f4")
        setup = "read a.bfloat\n"
    r = kep.stdin(setup + line + "\nquit\n")
    assert r.stderr == NAME_MISSING, r

"""tools/kep-view draws montages and plots of what kep writes."""
import subprocess
import sys

import numpy as np
import pytest

from conftest import SOURCE

VIEW = SOURCE / "tools" / "kep-view"
plt = pytest.importorskip("matplotlib.image")


def view(*args, cwd):
    return subprocess.run([sys.executable, str(VIEW), *map(str, args)], cwd=cwd, capture_output=True, text=True)


def test_montage_of_an_xdisplay_volume_has_the_expected_size(tmp_path):
    data = np.arange(4 * 5 * 6 * 2, dtype="<f4").reshape(2, 6, 5, 4)  # t, z, y, x on disk
    data.tofile(tmp_path / "v.bfloat")
    (tmp_path / "v.hdr").write_text("x 4\ny 5\nz 6\nt 2\nstorage-type float\nbyte-order 1\n")
    r = view("montage", "v.bfloat", "-o", "m.png", "--volume", 1, "--columns", 3, "--size", 4, "--dpi", 50,
             cwd=tmp_path)
    assert r.returncode == 0, r.stderr
    image = plt.imread(tmp_path / "m.png")
    # 3 columns x 2 rows of panels, one inch each at 50 dpi
    assert image.shape[:2] == (100, 150)
    assert "6 slices" in r.stdout


def test_thresholded_map_over_anatomy_from_nifti(tmp_path):
    nib = pytest.importorskip("nibabel")
    anat = np.full((8, 8, 4), 100.0, dtype=np.float32)
    stat = np.zeros((8, 8, 4), dtype=np.float32)
    stat[3:5, 3:5, 2] = 7.0
    nib.save(nib.Nifti1Image(anat, np.eye(4)), tmp_path / "mean.nii")
    nib.save(nib.Nifti1Image(stat, np.eye(4)), tmp_path / "F.nii")
    r = view("montage", "F.nii", "--over", "mean.nii", "--threshold", 3, "-o", "o.png", "--dpi", 40, cwd=tmp_path)
    assert r.returncode == 0, r.stderr
    image = plt.imread(tmp_path / "o.png")
    assert image.shape[:2] == (160, 160)
    # the suprathreshold patch is drawn in colour somewhere over the grey anatomy
    rgb = image[..., :3]
    assert (np.ptp(rgb, axis=2) > 0.2).any()


def test_plots_of_hrf_and_histogram_files(tmp_path):
    (tmp_path / "HRF.dat").write_text("x y\n" + "".join(f"{0.1 * i:g} {np.exp(-i / 10):g}\n" for i in range(50)))
    (tmp_path / "hist.dat").write_text("".join(f"{i} {i * i}\n" for i in range(10)))
    for name in ("HRF.dat", "hist.dat"):
        r = view("plot", name, "-o", name + ".png", "--dpi", 50, cwd=tmp_path)
        assert r.returncode == 0, r.stderr
        assert plt.imread(tmp_path / (name + ".png")).shape[:2] == (200, 300)

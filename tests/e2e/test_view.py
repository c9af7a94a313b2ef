"""tools/kep-view draws stat maps, design matrices, montages and plots."""
import re
import subprocess

import numpy as np
import pytest

from conftest import SOURCE

VIEW = SOURCE / "tools" / "kep-view"
plt = pytest.importorskip("matplotlib.image")
nib = pytest.importorskip("nibabel")
PANEL = re.compile(r"panel (.*?): pixels x (\S+) (\S+) y (\S+) (\S+); left (\w) (\S+) mm, right (\w) (\S+) mm, "
                   r"bottom (\w) (\S+) mm, top (\w) (\S+) mm")


def view(*args, cwd):
    # The script's own first line names the interpreter it needs.
    return subprocess.run([str(VIEW), *map(str, args)], cwd=cwd, capture_output=True, text=True)


def panels(stdout):
    return [(m[0], [float(v) for v in m[1:5]], list(m[5::2]), [float(v) for v in m[6::2]])
            for m in PANEL.findall(stdout)]


def coloured(image, box):
    """Rows and columns of the saturated (map) pixels inside a panel's pixel box."""
    x0, x1, y0, y1 = (int(round(v)) for v in box)
    rows, cols = np.nonzero(np.ptp(image[y0:y1, x0:x1, :3], axis=2) > 0.5)
    return rows + y0, cols + x0


@pytest.mark.parametrize("flip_x", [False, True])
def test_stat_map_puts_the_blob_at_its_world_position(tmp_path, flip_x):
    shape, size = (13, 11, 9), np.array([3.0, 3.5, 4.0])
    origin = np.array([-18.0, -17.5, -16.0])
    stat = np.zeros(shape, np.float32)
    stat[8:11, 2:5, 4:7] = 5.0
    stat[9, 3, 5] = 9.0  # centre at world (9, -7, 4)
    anat = np.random.default_rng(3).uniform(50, 100, shape).astype(np.float32)
    affine = np.diag([*size, 1.0])
    affine[:3, 3] = origin
    if flip_x:  # same world positions, stored from right to left
        stat, anat = stat[::-1].copy(), anat[::-1].copy()
        affine[0, 0], affine[0, 3] = -size[0], origin[0] + (shape[0] - 1) * size[0]
    nib.save(nib.Nifti1Image(stat, affine), tmp_path / "z.nii")
    nib.save(nib.Nifti1Image(anat, affine), tmp_path / "mean.nii")
    r = view("stat", "z.nii", "--bg", "mean.nii", "--threshold", 4, "--at", 4, "-v", "--dpi", 80,
             "-o", "z.png", cwd=tmp_path)
    assert r.returncode == 0, r.stderr
    assert f"(axes {'LAS' if flip_x else 'RAS'})" in r.stdout
    [(title, box, letters, edges)] = panels(r.stdout)
    assert title == "z = +4 mm"
    assert letters == ["L", "R", "P", "A"]
    left, bottom = origin[:2] - size[:2] / 2
    right, top = origin[:2] + (np.array(shape[:2]) - 0.5) * size[:2]
    np.testing.assert_allclose(edges, [left, right, bottom, top], atol=0.06)
    rows, cols = coloured(plt.imread(tmp_path / "z.png"), box)
    assert rows.size > 0
    x = left + (cols.mean() + 0.5 - box[0]) / (box[1] - box[0]) * (right - left)
    y = top - (rows.mean() + 0.5 - box[2]) / (box[3] - box[2]) * (top - bottom)
    assert abs(x - 9.0) < 1.0 and abs(y + 7.0) < 1.0, (x, y)


def test_montage_shares_one_scale_over_slices(tmp_path):
    data = (np.ones((6, 5, 4, 2)) * np.arange(1, 5)[None, None, :, None]).astype("<f4")  # slice k: k + 1
    data.transpose(3, 2, 1, 0).tofile(tmp_path / "v.bfloat")
    (tmp_path / "v.hdr").write_text("x 6\ny 5\nz 4\nt 2\nstorage-type float\nbyte-order 1\nresolution 2 3 4 1\n")
    r = view("montage", "v.bfloat", "-o", "m.png", "--volume", 1, "-v", "--dpi", 50, cwd=tmp_path)
    assert r.returncode == 0, r.stderr
    assert "4 slices" in r.stdout
    image = plt.imread(tmp_path / "m.png")
    found = panels(r.stdout)
    assert len(found) == 4
    brightness = []
    for _, box, _, _ in found:
        x0, x1, y0, y1 = (int(round(v)) for v in box)
        brightness.append(np.median(image[y0 + 2:y1 - 2, x0 + 2:x1 - 2, :3]))
    assert brightness == sorted(brightness) and brightness[0] < 0.1 and brightness[-1] > 0.9


def test_thresholded_map_over_anatomy_from_nifti(tmp_path):
    anat = np.full((8, 8, 4), 100.0, dtype=np.float32)
    stat = np.zeros((8, 8, 4), dtype=np.float32)
    stat[3:5, 3:5, 2] = 7.0
    nib.save(nib.Nifti1Image(anat, np.eye(4)), tmp_path / "mean.nii")
    nib.save(nib.Nifti1Image(stat, np.eye(4)), tmp_path / "F.nii")
    r = view("montage", "F.nii", "--over", "mean.nii", "--threshold", 3, "-o", "o.png", "--dpi", 40, "-v",
             cwd=tmp_path)
    assert r.returncode == 0, r.stderr
    hits = [len(coloured(plt.imread(tmp_path / "o.png"), box)[0]) for _, box, _, _ in panels(r.stdout)]
    assert [h > 0 for h in hits] == [False, False, True, False]


def test_design_picture_and_plots(tmp_path):
    (tmp_path / "HRF.dat").write_text("x y\n" + "".join(f"{0.1 * i:g} {np.exp(-i / 10):g}\n" for i in range(50)))
    (tmp_path / "hist.dat").write_text("".join(f"{i} {i * i}\n" for i in range(10)))
    rows = "".join(f"{t}\t{1 + t // 10}\t{int(t == 4)}\t{np.sin(t / 3):.6f}\t1\n" for t in range(20))
    (tmp_path / "d.tsv").write_text("# AR order 1, smoothed\nimage\trun\texcluded\tevent_1\trun1_constant\n" + rows)
    for what, name in (("plot", "HRF.dat"), ("plot", "hist.dat"), ("design", "d.tsv")):
        r = view(what, name, "-o", name + ".png", "--dpi", 50, cwd=tmp_path)
        assert r.returncode == 0, r.stderr
        assert plt.imread(tmp_path / (name + ".png")).ndim == 3
    assert "20 images x 2 columns" in r.stdout

"""GLM-histogram against least-squares p; GLM-vary-tau(s) on data of known time constants."""
import re

import nibabel as nib
import numpy as np
import pytest
from scipy import stats

from glm_model import TR, Study, bold_response, ols


def printed_distributions(stdout):
    """condition -> (counts of the 20 bins, KS distance, fraction below 0.05, below 0.001)."""
    out = {}
    for block in stdout.split("Exact p of condition ")[1:]:
        name = block.split(" ", 1)[0]
        counts = [int(m) for m in re.findall(r"^  \d\.\d\d  \d\.\d\d +(\d+) ", block, re.M)]
        ks = float(re.search(r"distance from uniform = (\S+)", block).group(1))
        f05, f001 = (float(v) for v in re.search(r"below 0.05 = (\S+), below 0.001 = (\S+) ", block).groups())
        out[name] = (np.array(counts), ks, f05, f001)
    return out


def test_glm_histogram_of_white_noise_is_uniform_and_matches_least_squares(kep):
    study = Study(nimg=40)
    rng = np.random.default_rng(12)
    shape = (52, 50, 40)  # 100,000 voxels with a signal
    # Single precision and chunked fits keep this process small: later tests measure the memory of kep processes forked
    # from it.
    data = rng.standard_normal((*shape, study.ntime), dtype=np.float32)
    data += 100
    data[:2] = 0  # voxels without a signal are left out
    study.write(kep.dir, data)
    r = kep.script("read-GLM study.glm\nGLM-histogram\n", timeout=600)
    assert "Fatal" not in r.stderr, r
    got = printed_distributions(r.stdout)
    assert sorted(got) == ["1", "2"]
    X = study.design()
    dof = study.ntime - X.shape[1]
    xtx = np.linalg.inv(X.T @ X)
    Y = data[2:].reshape(-1, study.ntime)
    del data
    p = [[], []]
    for start in range(0, Y.shape[0], 10000):
        beta, fit = ols(X, study.include(), Y[start:start + 10000].astype(np.float64))
        sigma2 = ((Y[start:start + 10000] - fit) ** 2).sum(axis=1) / dof
        for k in range(2):
            t = beta[:, k] / np.sqrt(sigma2 * xtx[k, k])
            p[k].append(2 * stats.t.sf(np.abs(t), dof))
    pooled = np.zeros(20, int)
    for k, name in enumerate(["1", "2"]):
        pk = np.concatenate(p[k])
        counts, ks, f05, f001 = got[name]
        expected = np.histogram(pk, bins=20, range=(0, 1))[0]
        assert counts.sum() == Y.shape[0]
        assert np.abs(counts - expected).max() <= 3, (counts, expected)
        pooled += counts
        assert ks == pytest.approx(stats.kstest(pk, "uniform").statistic, abs=2e-4)
        assert ks < 0.02
        assert f05 == pytest.approx(np.mean(pk < 0.05), abs=1e-4)
        assert f001 == pytest.approx(np.mean(pk < 0.001), abs=1e-4)
    lines = kep.path("hist.dat").read_text().split("\n")
    assert lines[0] == "x y"
    written = np.loadtxt(lines[1:])
    np.testing.assert_allclose(written[:, 0], np.arange(20) / 20 + 0.025)
    np.testing.assert_array_equal(written[:, 1], pooled)


def gamma_study(directory, taus, tau0=4.0, nimg=60):
    """Gamma events of time constant tau0 in the files; voxel v responds with taus[v]."""
    onsets = [4, 40, 70]
    t = np.arange(nimg) * TR
    rng = np.random.default_rng(13)
    series = []
    for tau in taus:
        x = np.zeros(nimg)
        for on in onsets:
            u = np.clip((t - on) / tau, 0, None)
            x += u * np.exp(1 - u)
        series.append(1000 + 50 * x + rng.normal(0, 1, nimg))
    study = Study(nimg=nimg, nruns=1, terms=2, conditions="1", events={f"1 gamma {tau0:g}": [(on, 1) for on in onsets]})
    study.write(directory, np.array(series).reshape(len(taus), 1, 1, nimg))


@pytest.mark.parametrize("command", ["GLM-vary-tau 9 timing", "GLM-vary-taus 9 timing glm"])
def test_glm_vary_tau_recovers_each_voxels_time_constant(kep, command):
    grid = 4.0 * 4.0 ** (2 * np.arange(9) / 8 - 1)  # a quarter to four times the files' value
    truth = np.concatenate([grid[1:-1], 0.5 * (grid[2:5] + grid[3:6])])
    gamma_study(kep.dir, truth)
    r = kep.script(f"read-GLM study.glm\n{command}\nwrite-float timing.nii timing\n"
                   "GLM-fit-events after\nwrite-float after.nii after\n")
    assert "Fatal" not in r.stderr, r
    out = np.asarray(nib.load(kep.path("timing.nii")).dataobj).reshape(len(truth), 2)
    index = np.array([np.argmin(np.abs(grid - tau)) for tau in out[:, 0]])
    np.testing.assert_allclose(out[:, 0], grid[index], rtol=1e-5)  # values of the documented grid
    assert (np.abs(np.log(out[:, 0] / truth) / np.log(grid[1] / grid[0])) <= 1.0 + 1e-6).all(), (out[:, 0], truth)
    np.testing.assert_array_equal(index[:len(grid) - 2], np.arange(1, len(grid) - 1))  # on the grid: exact
    assert (out[:, 1] > 100).all()
    # The model is put back as the files define it afterwards.
    fresh = kep.script("read-GLM study.glm\nGLM-fit-events after\nwrite-float fresh.nii after\n", name="b.com")
    assert "Fatal" not in fresh.stderr
    np.testing.assert_array_equal(np.asarray(nib.load(kep.path("after.nii")).dataobj),
                                  np.asarray(nib.load(kep.path("fresh.nii")).dataobj))


def test_glm_vary_tau_scales_the_response_function_without_gamma_events(kep):
    nimg, blocks = 90, [(10, 30), (70, 90), (130, 150)]
    grid = 4.0 ** (2 * np.arange(7) / 6 - 1)
    factors = grid[1:-1]
    n = int(TR / 0.1 + 0.5)
    fine = np.arange(nimg * n) * 0.1
    box = np.zeros(fine.size)
    for on, off in blocks:
        box[(fine >= on) & (fine <= off)] = 1
    rng = np.random.default_rng(14)
    series = [1000 + 30 * np.convolve(box, bold_response(f))[:fine.size][::n] + rng.normal(0, 0.5, nimg)
              for f in factors]
    study = Study(nimg=nimg, nruns=1, terms=2, header="IRF BOLD-monkey\n", conditions="1",
                  events={1: [(a, b, 1) for a, b in blocks]})
    study.write(kep.dir, np.array(series).reshape(len(factors), 1, 1, nimg))
    r = kep.script("read-GLM study.glm\nGLM-vary-tau 7 timing\nwrite-float timing.nii timing\n")
    assert "Fatal" not in r.stderr, r
    out = np.asarray(nib.load(kep.path("timing.nii")).dataobj).reshape(len(factors), 2)
    index = np.array([np.argmin(np.abs(1.5 * grid - tau)) for tau in out[:, 0]])
    np.testing.assert_array_equal(index, np.arange(1, len(grid) - 1))


BAD = [
    ("GLM-vary-tau 0 timing", "must be 1 to 1000"),
    ("GLM-vary-tau 5000 timing", "must be 1 to 1000"),
    ("GLM-vary-tau 3 glm", "cannot replace the stack glm"),
    ("GLM-vary-taus 3 timing other", "10 volumes are listed but the GLM has 60 images"),
    ("GLM-vary-taus 3 timing glm other", "Only one volume (stack `glm')"),
]


@pytest.mark.parametrize("command, message", BAD, ids=[b[0] for b in BAD])
def test_vary_tau_refuses_bad_arguments_and_leaves_glm_alone(kep, command, message):
    gamma_study(kep.dir, [2.0, 4.0, 8.0])
    r = kep.stdin(f"read-GLM study.glm\nread run0.nii>0-9 other\n{command}\nwrite-float glm.nii glm\n"
                  "show-stacks\nquit\n")
    assert message in r.stdout + r.stderr, r
    assert "Fatal" not in r.stderr and "Sanitizer" not in r.stderr, r
    assert "timing" not in r.stdout.split("show-stacks")[-1]
    np.testing.assert_array_equal(np.asarray(nib.load(kep.path("glm.nii")).dataobj).reshape(3, -1),
                                  np.asarray(nib.load(kep.path("run0.nii")).dataobj).reshape(3, -1))


def test_diagnostics_need_a_time_constant_and_a_glm(kep):
    Study(nimg=20).write(kep.dir, np.random.default_rng(1).normal(100, 1, (3, 2, 2, 40)))
    r = kep.stdin("GLM-histogram\nread-GLM study.glm\nGLM-vary-tau 3 timing\nquit\n")
    assert "Error: Stack glm does not exist." in r.stderr
    assert "no gamma events and no response function of exponentials" in r.stderr, r

"""GLM-write-design against a numpy rebuild for every stimulus shape; p of F against scipy."""
import math
import subprocess
from pathlib import Path

import nibabel as nib
import numpy as np
import pytest
from scipy import stats

from conftest import KEP
from glm_model import Study, bold_response


def read_tsv(path):
    lines = path.read_text().splitlines()
    rows = [line.split("\t") for line in lines if not line.startswith("#")]
    return rows[0], np.array(rows[1:], dtype=float)


def test_design_needs_a_model_and_a_writable_file(kep):
    r = kep.stdin("GLM-write-design d.tsv\n")
    assert "Error: no GLM design is defined (read a control file with read-GLM first).\n" in r.stdout
    study = Study()
    study.write(kep.dir, np.zeros((1, 1, 1, study.ntime)))
    r = kep.stdin("read-GLM study.glm\nGLM-write-design nodir/d.tsv\n")
    assert "Error attempting to open the data file nodir/d.tsv.\n" in r.stdout
    assert not kep.path("d.tsv").exists()


def test_design_names_trial_types_and_confounds_by_their_columns(kep):
    from test_glm_bids import design, write_study

    header = "baseline-terms 1\nconfounds trans_? framewise_displacement motion_outlier*\n"
    _, tables = write_study(kep.dir, np.random.default_rng(5), header)
    r = kep.script("read-GLM study.glm\nGLM-write-design design.tsv\n")
    assert "Fatal" not in r.stderr, r
    header, table = read_tsv(kep.path("design.tsv"))
    chosen = {"trans_x", "trans_y", "framewise_displacement", "motion_outlier00"}
    confounds = [f"run{r + 1}_{c}" for r, t in enumerate(tables) for c in t if c in chosen]
    assert header == ["image", "run", "excluded", "event_1:faces", "event_2:houses", "run1_constant",
                      "run2_constant"] + confounds
    np.testing.assert_allclose(table[:, 3:], design(tables, 1, chosen), atol=1e-6)


TR = 2.0
STEP = np.float32(0.1)


def normalise(x, scale=1.0):
    m = x[np.argmax(np.abs(x))]
    return x if m == 0 else x * (scale / abs(m))


def causal(x, k):
    return np.convolve(x, k)[: len(x)]


def exp_kernel(tau, dt, length):
    if tau <= 0:
        return np.zeros(length)
    d = math.exp(-dt / tau)
    return (1 - d) * d ** np.arange(length)


def table_baseline(v, terms):
    i = np.arange(len(v)) / len(v)
    A = np.array([np.ones(len(v)), i, i ** 2][: min(terms, 3)]).T  # any basis of the same span
    nz = v != 0
    coef, *_ = np.linalg.lstsq(A[nz], v[nz], rcond=None)
    return np.where(nz, v - A @ coef, 0)


def test_design_of_every_shape_equals_its_rebuild(kep):
    nimg = [30, 25]
    starts = [0, 30]
    tables = []
    for r in range(2):
        rows = np.round(np.sin(np.arange(nimg[r]) * (0.7 + r)) * 3 + np.arange(nimg[r]) * 0.2, 3)
        rows[::6] = 0  # zero entries take no part in the baseline fit
        other = np.round(np.cos(np.arange(nimg[r]) * 0.3) * 2, 3)
        tables.append((rows, other))
        img = nib.Nifti1Image(np.zeros((1, 1, 1, nimg[r]), np.float32), np.eye(4))
        img.header.set_zooms((1.0, 1.0, 1.0, TR))
        nib.save(img, kep.path(f"d{r}.nii"))
        (kep.dir / f"t{r}.dat").write_text("load motion\n" + "".join(f"{a} {b}\n" for a, b in zip(rows, other)))
    (kep.dir / "r0.glm").write_text(
        "2 60\n\n1 square\n4 10\n30 41.5 2\n\n2 gamma 5\n6\n33 0.5\n\n3 drug-IRF 6 3\n12 20\n\n"
        "4 sine 16\n0 24\n\n5 cosine 10\n40 58\n\n6 ramp-up\n2 12\n\n7 ramp-down\n20 30\n\n"
        "8 table 0\n\n9 table 1\n\nI interaction 1 2\n\n-1\n26 27\n")
    (kep.dir / "r1.glm").write_text(
        "2 50\n\n2 gamma 5\n3 1\n\n1\n14 22\n\n8 table 0\n\n9 table 1\n\n6 ramp-up\n30 44 0.5\n\n"
        "I interaction 1 2\n\n3 drug-IRF 6 3\n1 5\n\n7 ramp-down\n2 8\n\n4 sine 16\n10 30\n\n5 cosine 10\n0 20\n")
    kep.path("c.txt").write_text("IRF BOLD-monkey\nbaseline-terms 4\nconvolve-table 9\nscale-event 2.5 2\n"
                                 "runs:\nd0.nii r0.glm t0.dat\nd1.nii r1.glm t1.dat\n")
    r = kep.script("read-GLM c.txt\nGLM-write-design design.tsv\n")
    assert "Fatal" not in r.stderr, r
    header, table = read_tsv(kep.path("design.tsv"))
    X = table[:, 3:]
    ntime = sum(nimg)
    n = int(np.float32(TR) / STEP + 0.5)  # 20 response samples per image
    N = ntime * n
    t = np.arange(N) * TR / n
    amp = bold_response(1.0).astype(np.float32).astype(np.float64)
    f32 = lambda x: float(np.float32(x))

    # Stimuli on the concatenated axis: (on, off, magnitude) as the reader stores them.
    run_end = [f32(starts[r] * TR + nimg[r] * TR) for r in range(2)]
    stims = {
        1: [(4, 10, 1), (30, 41.5, 2), (74, 82, 1)],
        2: [(6, run_end[0], 1), (33, run_end[0], 0.5), (63, run_end[1], 1)],
        3: [(12, 20, 1), (61, 65, 1)],
        4: [(0, 24, 1), (70, 90, 1)],
        5: [(40, 58, 1), (60, 80, 1)],
        6: [(2, 12, 1), (90, 104, 0.5)],
        7: [(20, 30, 1), (62, 68, 1)],
    }

    # each shape as a function of the time x since onset, over a stimulus of length d
    shapes = {1: lambda x, d: 1, 2: lambda x, d: x / 5 * np.exp(1 - x / 5), 3: lambda x, d: 1,
              4: lambda x, d: np.sin(6.283185308 / 16 * x), 5: lambda x, d: np.cos(6.283185308 / 10 * x),
              6: lambda x, d: x / d, 7: lambda x, d: 1 - x / d}

    def paradigm(e):
        out = np.zeros(N)
        for on, off, m in stims[e]:
            on, off = f32(on), f32(off)
            w = (t >= on) & (t <= off)
            out[w] += m * shapes[e](t[w] - on, off - on)
        return out

    cols = {e: normalise(causal(paradigm(e), amp), 2.5 if e == 2 else 1.0)[::n] for e in shapes}
    dt = TR / n
    L = min(max(math.ceil(6 / dt * math.log(1e4)) + 1, 1), N)
    drug = causal(causal(paradigm(3), exp_kernel(3, dt, L)), exp_kernel(6, dt, L))
    cols[3] = normalise(causal(drug, amp))[::n]
    for number, column, convolved in ((8, 0, False), (9, 1, True)):
        fine = np.zeros(N)
        for r in range(2):
            values = table_baseline(np.array(tables[r][column], dtype=np.float32).astype(np.float64), 4)
            values = values.astype(np.float32).astype(np.float64)
            i = np.arange(starts[r] * n, (starts[r] + nimg[r]) * n)
            p = (t[i] - starts[r] * TR) / TR
            lo = np.clip(np.floor(p).astype(int), 0, nimg[r] - 1)
            hi = np.clip(lo + 1, 0, nimg[r] - 1)
            wgt = lo + 1 - p
            v = wgt * values[lo] + (1 - wgt) * values[hi]
            fine[i] = np.where(p <= 0, values[0], np.where(p >= nimg[r] - 1, values[-1], v))
        cols[number] = normalise(causal(fine, amp) if convolved else fine)[::n]
    cols[44] = normalise(cols[1] * cols[2])

    order = [1, 2, 3, 4, 5, 6, 7, 8, 9, 44]
    terms = ["constant", "linear", "quadratic", "cubic"]
    assert header == (["image", "run", "excluded"] + [f"event_{e}" for e in order]
                      + [f"run{r}_{term}" for term in terms for r in (1, 2)])
    np.testing.assert_array_equal(table[:, :2], np.c_[np.arange(ntime), np.repeat([1, 2], nimg)])
    for e, number in enumerate(order):
        np.testing.assert_allclose(X[:, e], cols[number], rtol=0, atol=2e-5 * np.abs(cols[number]).max() + 1e-6,
                                   err_msg=f"event {number}")

    # baseline term k of run r: a polynomial of degree k in the run's time, 0 in the other run
    for k in range(4):
        for r in range(2):
            column = X[:, len(order) + k * 2 + r]
            rows = slice(starts[r], starts[r] + nimg[r])
            assert not np.delete(column, np.arange(ntime)[rows]).any()
            powers = np.vander(np.arange(nimg[r]) / (nimg[r] - 1), k + 1, increasing=True)
            coef, *_ = np.linalg.lstsq(powers, column[rows], rcond=None)
            np.testing.assert_allclose(powers @ coef, column[rows], atol=1e-6)
            assert abs(coef[k]) > 0.5
    inc = np.ones(ntime, dtype=bool)
    inc[26:28] = False
    np.testing.assert_array_equal(table[:, 2], ~inc)


def test_p_values_match_the_f_distribution_folded_for_several_rows():
    """F of one row: the upper tail; of several rows: twice the smaller tail."""
    cases = [(F, dof, nc) for dof in (1, 3, 10, 57, 300, 5000) for nc in (1, 2, 3, 7)
             for F in (0.0, 1e-6, 0.05, 0.3, 1.0, 2.5, 7.0, 30.0, 150.0, 1e3)]
    text = "".join(f"{F!r} {dof} {nc}\n" for F, dof, nc in cases)
    proc = subprocess.run([str(Path(KEP).parent / "glm_driver")], input=text, capture_output=True, text=True,
                          timeout=300, check=True)
    compared = 0
    for (F, dof, nc), p in zip(cases, map(float, proc.stdout.split())):
        upper = stats.f.sf(F, nc, dof)
        expected = upper if nc == 1 or upper == 1 else 2 * min(upper, 1 - upper)
        if expected > 1e-90:
            assert p == pytest.approx(expected, rel=1e-6, abs=0), (F, dof, nc)
            compared += 1
    assert compared > 200

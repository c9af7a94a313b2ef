"""The GLM engine against independent tools: least squares from numpy, the F
distribution from scipy, and a design matrix built here from the model's rules."""
import math
import subprocess
from pathlib import Path

import numpy as np
import pytest
from scipy import stats

from conftest import KEP
from glm_model import bold_response

DRIVER = Path(KEP).parent / "glm_driver"


def driver(*args, stdin=None):
    proc = subprocess.run([str(DRIVER), *map(str, args)], input=stdin, capture_output=True, text=True, timeout=300)
    assert proc.returncode == 0, proc.stdout + proc.stderr
    return proc.stdout


def read_design(control):
    lines = driver("design", control).splitlines()
    head = lines[0].split()
    assert head[0] == "model"
    ntime, ncoeff, nevents, nruns = map(int, head[1:5])
    dof = float(head[5])
    events = [int(w) for w in lines[1].split()[1:]]
    include = np.array([int(w) for w in lines[2].split()[1:]], dtype=bool)
    X = np.array([[float(w) for w in line.split()] for line in lines[3:3 + ntime]])
    assert X.shape == (ntime, ncoeff)
    return dict(ntime=ntime, ncoeff=ncoeff, nevents=nevents, nruns=nruns, dof=dof, events=events,
                include=include, X=X)


def folded_sf(F, nc, dof):
    p = stats.f.sf(F, nc, dof)
    if nc > 1:
        p *= 2
        if p == 2:
            p = 1.0
        elif p > 1:
            p = 2 - p
    return p


def event_char(n):
    if n < 10:
        return str(n)
    if n < 36:
        return chr(ord("a") + n - 10)
    return chr(ord("A") + n - 36)


def random_study(tmp, rng, nruns, terms, nevents):
    """Random square and gamma events over nruns runs of 60 images at TR 2 s."""
    runs = []
    taus = rng.uniform(2, 6, size=nevents + 1)
    for r in range(nruns):
        text = "2 120\n"
        for e in range(1, nevents + 1):
            if e % 3 == 0:
                text += f"\n{e} gamma {taus[e]:.3f}\n"
                for on in sorted(rng.choice(np.arange(0, 110, 7), size=4, replace=False)):
                    text += f"{on + rng.uniform(0, 1):.3f} {rng.uniform(0.5, 2):.3f}\n"
            else:
                text += f"\n{e}\n"
                starts = sorted(rng.choice(np.arange(0, 100, 14), size=3, replace=False))
                for on in starts:
                    text += f"{on + 1.5:.3f} {on + 1.5 + rng.uniform(3, 10):.3f} {rng.uniform(0.5, 2):.3f}\n"
        if r == 0:
            text += "\n-1\n5 7\n"
        name = tmp / f"run{r}.glm"
        name.write_text(text)
        runs.append(name)
    conditions = "1 1-2 12 1,2 " + ",".join(str(e) for e in range(1, nevents + 1))
    control = tmp / "control.txt"
    control.write_text(f"baseline-terms {terms}\nconditions {conditions}\nruns:\n" +
                       "".join(f"d{r} {runs[r]}\n" for r in range(nruns)))
    return control, conditions


def contrast(word, events, ncoeff):
    rows = []
    for part in word.split(","):
        row = np.zeros(ncoeff)
        sign = 1
        for c in part:
            if c == "-":
                sign = -1
                continue
            n = int(c) if c.isdigit() else None
            row[events.index(n)] += sign
        rows.append(row)
    return np.array(rows)


@pytest.mark.parametrize("seed,nruns,terms,nevents", [(1, 1, 3, 3), (2, 2, 2, 4), (3, 3, 4, 3), (4, 2, 0, 5)])
def test_fits_match_least_squares_and_the_f_distribution(tmp_path, seed, nruns, terms, nevents):
    rng = np.random.default_rng(seed)
    control, conditions = random_study(tmp_path, rng, nruns, terms, nevents)
    model = read_design(control)
    X, inc, dof = model["X"], model["include"], model["dof"]
    assert dof == inc.sum() - model["ncoeff"]
    nvox = 12
    beta_true = rng.normal(0, 3, size=(nvox, model["ncoeff"]))
    noise = rng.normal(0, 1, size=(nvox, model["ntime"])) * rng.uniform(0.2, 5, size=(nvox, 1))
    data = (beta_true @ X.T + noise).astype(np.float32)
    data[:, ~inc] = 1e6  # excluded images must not matter
    data_file = tmp_path / "data.f32"
    data.tofile(data_file)
    out = driver("fit", control, data_file, nvox, conditions).splitlines()
    assert out[-1] == "block_identical 1"

    Xi = X[inc].astype(np.float64)
    XtXi = np.linalg.inv(Xi.T @ Xi)
    words = conditions.split()
    checked = 0
    for line in out:
        w = line.split()
        if w[0] == "voxel":
            v = int(w[1])
            var = float(w[3])
            beta = np.array([float(x) for x in w[5:]])
            y = data[v, inc].astype(np.float64)
            b_np, *_ = np.linalg.lstsq(Xi, y, rcond=None)
            resid = y - Xi @ b_np
            var_np = resid @ resid / dof
            scale = np.abs(b_np).max()
            np.testing.assert_allclose(beta, b_np, rtol=2e-5, atol=2e-5 * scale)
            np.testing.assert_allclose(var, var_np, rtol=1e-4)
        elif w[0] == "condition":
            v, k = int(w[1]), int(w[2])
            F, stat, p, pc = float(w[4]), float(w[6]), float(w[8]), float(w[10])
            effect = float(w[12])
            y = data[v, inc].astype(np.float64)
            b_np, *_ = np.linalg.lstsq(Xi, y, rcond=None)
            resid = y - Xi @ b_np
            var_np = resid @ resid / dof
            C = contrast(words[k], model["events"], model["ncoeff"])
            e = C @ b_np
            F_np = e @ np.linalg.solve(C @ XtXi @ C.T, e) / var_np / len(C)
            np.testing.assert_allclose(F, F_np, rtol=2e-4)
            chosen = e[np.argmax(np.abs(e))]
            np.testing.assert_allclose(effect, chosen, rtol=1e-4, atol=1e-5 * np.abs(b_np).max())
            assert math.copysign(1, stat) == math.copysign(1, chosen)
            expected = max(folded_sf(F, len(C), dof), math.exp(-100))
            if expected > 1e-30:  # p is a float: below that it loses digits
                assert p == pytest.approx(expected, rel=1e-6), (F, len(C), dof)
            # corrected p: 100 resels times the 3-D Euler characteristic density of a t field
            # (F taken as t squared), 1 where that is no probability
            rho = (4 * math.log(2)) ** 1.5 / (2 * math.pi) ** 2 * ((dof - 1) / dof * F - 1) \
                * (1 + F / dof) ** (-(dof - 1) / 2)
            corrected = 100 * rho if 0 <= 100 * rho <= 1 else 1.0
            assert pc == pytest.approx(max(corrected, math.exp(-100)), rel=1e-3, abs=1e-12), (F, dof)
            checked += 1
    assert checked == nvox * len(words)


def test_p_values_match_the_f_distribution_with_folding():
    cases = []
    for dof in (1, 3, 10, 57, 300, 5000):
        for nc in (1, 2, 3, 7):
            for F in (0.0, 1e-6, 0.05, 0.3, 1.0, 2.5, 7.0, 30.0, 150.0, 1e3):
                cases.append((F, dof, nc))
    text = "".join(f"{F!r} {dof} {nc}\n" for F, dof, nc in cases)
    got = [float(x) for x in driver("pvalues", stdin=text).split()]
    compared = 0
    for (F, dof, nc), p in zip(cases, got):
        expected = folded_sf(F, nc, dof)
        if expected > 1e-90:
            assert p == pytest.approx(expected, rel=1e-6, abs=0), (F, dof, nc)
            compared += 1
    assert compared > 200


# ---------------------------------------------------------------------------
# Design matrix built independently from the rules of the model.

TR = 2.0
STEP = np.float32(0.1)


def normalise(x, scale=1.0):
    i = np.argmax(np.abs(x))
    m = x[i]
    return x if m == 0 else x * (scale / abs(m))


def causal(x, k):
    return np.convolve(x, k)[: len(x)]


def exp_kernel(tau, dt, length):
    if tau <= 0:
        return np.zeros(length)
    d = math.exp(-dt / tau)
    return (1 - d) * d ** np.arange(length)


def table_baseline(v, terms):
    n = len(v)
    i = np.arange(n)
    cols = [np.ones(n), i / n, (i / n) ** 2][: min(terms, 3)]  # any basis of the same span
    A = np.array(cols).T
    nz = v != 0
    coef, *_ = np.linalg.lstsq(A[nz], v[nz], rcond=None)
    out = v - A @ coef
    out[~nz] = 0
    return out


def test_design_matrix_with_every_shape(tmp_path):
    nimg = [30, 25]
    starts = [0, 30]
    tables = []
    for r in range(2):
        rows = np.round(np.sin(np.arange(nimg[r]) * (0.7 + r)) * 3 + np.arange(nimg[r]) * 0.2, 3)
        rows[::6] = 0  # zero entries take no part in the baseline fit
        other = np.round(np.cos(np.arange(nimg[r]) * 0.3) * 2, 3)
        tables.append((rows, other))
        (tmp_path / f"t{r}.dat").write_text("load motion\n" + "".join(f"{a} {b}\n" for a, b in zip(rows, other)))
    (tmp_path / "r0.glm").write_text(
        "2 60\n\n1 square\n4 10\n30 41.5 2\n\n2 gamma 5\n6\n33 0.5\n\n3 drug-IRF 6 3\n12 20\n\n"
        "4 sine 16\n0 24\n\n5 cosine 10\n40 58\n\n6 ramp-up\n2 12\n\n7 ramp-down\n20 30\n\n"
        "8 table 0\n\n9 table 1\n\nI interaction 1 2\n\n-1\n26 27\n")
    (tmp_path / "r1.glm").write_text(
        "2 50\n\n2 gamma 5\n3 1\n\n1\n14 22\n\n8 table 0\n\n9 table 1\n\n6 ramp-up\n30 44 0.5\n\n"
        "I interaction 1 2\n\n3 drug-IRF 6 3\n1 5\n\n7 ramp-down\n2 8\n\n4 sine 16\n10 30\n\n5 cosine 10\n0 20\n")
    control = tmp_path / "c.txt"
    control.write_text("IRF BOLD-monkey\nbaseline-terms 4\nconvolve-table 9\nscale-event 2.5 2\n"
                       f"runs:\nd0 {tmp_path}/r0.glm {tmp_path}/t0.dat\nd1 {tmp_path}/r1.glm {tmp_path}/t1.dat\n")
    model = read_design(control)
    X = model["X"]
    ntime = sum(nimg)
    n = int(np.float32(TR) / STEP + 0.5)
    assert n == 20
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

    def paradigm(e, shape, tau=None):
        out = np.zeros(N)
        for on, off, m in stims[e]:
            on, off = f32(on), f32(off)
            w = (t >= on) & (t <= off)
            x = t[w] - on
            if shape == "square":
                out[w] += m
            elif shape == "ramp-up":
                out[w] += m * x / (off - on)
            elif shape == "ramp-down":
                out[w] += m * (1 - x / (off - on))
            elif shape == "sine":
                out[w] += m * np.sin(6.283185308 / tau * x)
            elif shape == "cosine":
                out[w] += m * np.cos(6.283185308 / tau * x)
            elif shape == "gamma":
                u = x / tau
                out[w] += m * u * np.exp(-u) / math.exp(-1)
        return out

    cols = {}
    cols[1] = normalise(causal(paradigm(1, "square"), amp))[::n]
    cols[2] = normalise(causal(paradigm(2, "gamma", 5.0), amp), 2.5)[::n]
    dt = TR / n
    L = min(max(math.ceil(6 / dt * math.log(1e4)) + 1, 1), N)
    drug = causal(causal(paradigm(3, "square"), exp_kernel(3, dt, L)), exp_kernel(6, dt, L))
    cols[3] = normalise(causal(drug, amp))[::n]
    cols[4] = normalise(causal(paradigm(4, "sine", 16.0), amp))[::n]
    cols[5] = normalise(causal(paradigm(5, "cosine", 10.0), amp))[::n]
    cols[6] = normalise(causal(paradigm(6, "ramp-up"), amp))[::n]
    cols[7] = normalise(causal(paradigm(7, "ramp-down"), amp))[::n]
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
            v = np.where(p <= 0, values[0], np.where(p >= nimg[r] - 1, values[-1], v))
            fine[i] = v
        cols[number] = normalise(causal(fine, amp) if convolved else fine)[::n]
    cols[44] = normalise(cols[1] * cols[2])

    order = [1, 2, 3, 4, 5, 6, 7, 8, 9, 44]
    assert model["events"] == order
    for e, number in enumerate(order):
        np.testing.assert_allclose(X[:, e], cols[number], rtol=0, atol=2e-5 * np.abs(cols[number]).max() + 1e-6,
                                   err_msg=f"event {number}")

    # baseline term k of run r: a polynomial of degree k in the run's time, 0 in the other run
    for k in range(4):
        for r in range(2):
            column = X[:, len(order) + k * 2 + r]
            rows = slice(starts[r], starts[r] + nimg[r])
            assert not np.delete(column, np.arange(ntime)[rows]).any()
            u = np.arange(nimg[r]) / (nimg[r] - 1)
            powers = np.vander(u, k + 1, increasing=True)
            coef, *_ = np.linalg.lstsq(powers, column[rows], rcond=None)
            np.testing.assert_allclose(powers @ coef, column[rows], atol=1e-6)
            assert abs(coef[k]) > 0.5
    inc = np.ones(ntime, dtype=bool)
    inc[26:28] = False
    assert (model["include"] == inc).all()
    assert model["dof"] == inc.sum() - X.shape[1]

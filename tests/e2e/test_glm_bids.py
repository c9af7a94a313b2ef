"""A GLM from a BIDS dataset (events.tsv, confound tables, the human response) against numpy."""
import nibabel as nib
import numpy as np
import pytest
from scipy import stats

from glm_model import close, load, series

TR = 2.5
NIMG = 37
SHAPE = (3, 2, 2)
EVENTS = [  # run, onset, duration, trial type, modulation
    (0, 5.0, 10.0, "faces", 1.0), (0, 31.2, 7.5, "houses", 2.0), (0, 60.0, 0.0, "faces", 1.0),
    (1, 2.5, 12.0, "houses", 1.0), (1, 40.1, 10.0, "faces", 1.5), (1, 70.0, 6.0, "houses", 1.0),
]
CONFOUNDS = ["trans_x", "trans_y", "rot_z", "global_signal", "framewise_displacement", "motion_outlier00"]


def write_study(directory, rng, header):
    """Two runs of data, events.tsv and confounds; returns the data and the confound tables."""
    tables = []
    # numpy fits the float32 samples the files hold
    data = (rng.normal(0, 1, size=(*SHAPE, 2 * NIMG)) + 100).astype(np.float32).astype(np.float64)
    runs = ""
    for r in range(2):
        img = nib.Nifti1Image(data[..., r * NIMG:(r + 1) * NIMG].astype(np.float32), np.diag([3.0, 3.0, 4.0, 1]))
        img.header.set_zooms((3.0, 3.0, 4.0, TR))
        img.header.set_xyzt_units("mm", "sec")
        nib.save(img, str(directory / f"sub-01_run-{r + 1}_bold.nii.gz"))
        lines = ["onset\tduration\ttrial_type\tmodulation"]
        lines += [f"{on:g}\t{dur:g}\t{tt}\t{'n/a' if m == 1.0 else f'{m:g}'}" for rr, on, dur, tt, m in EVENTS if rr == r]
        (directory / f"sub-01_run-{r + 1}_events.tsv").write_text("\n".join(lines) + "\n")
        table = {c: rng.normal(size=NIMG) for c in CONFOUNDS[:4]}
        table["framewise_displacement"] = np.abs(rng.normal(size=NIMG))
        if r == 1:
            table["motion_outlier00"] = (np.arange(NIMG) == 17).astype(float)
        rows = ["\t".join(table)] + ["\t".join("n/a" if (c == "framewise_displacement" and i == 0)
                                                else repr(float(table[c][i])) for c in table) for i in range(NIMG)]
        table["framewise_displacement"][0] = 0.0
        (directory / f"sub-01_run-{r + 1}_desc-confounds_timeseries.tsv").write_text("\n".join(rows) + "\n")
        tables.append(table)
        runs += (f"sub-01_run-{r + 1}_bold.nii.gz sub-01_run-{r + 1}_events.tsv "
                 f"sub-01_run-{r + 1}_desc-confounds_timeseries.tsv\n")
    (directory / "study.glm").write_text(header + "conditions 1 2 1-2\nruns:\n" + runs)
    return data, tables


def design(tables, terms, chosen):
    """Events over [onset, onset + duration) (at least one image), per-run powers, centred confounds."""
    n = 2 * NIMG
    cols = []
    for tt in ("faces", "houses"):
        x = np.zeros(n)
        for r, on, dur, name, m in EVENTS:
            if name != tt:
                continue
            t = np.arange(NIMG) * TR
            inside = (t >= on - 1e-9) & (t < on + dur - 1e-9)
            if not inside.any():
                inside[np.argmax(t >= on - 1e-9)] = True
            x[r * NIMG:(r + 1) * NIMG][inside] = m
        cols.append(x / np.abs(x).max())
    for k in range(terms):
        for r in range(2):
            x = np.zeros(n)
            x[r * NIMG:(r + 1) * NIMG] = (np.arange(NIMG) / (NIMG - 1)) ** k
            cols.append(x)
    for r, table in enumerate(tables):
        for c in table:
            if c in chosen:
                x = np.zeros(n)
                x[r * NIMG:(r + 1) * NIMG] = table[c] - table[c].mean()
                cols.append(x)
    return np.array(cols).T


@pytest.mark.parametrize("terms", [3, 0])
def test_event_effects_with_confounds_match_least_squares(kep, terms):
    rng = np.random.default_rng(40 + terms)
    header = f"baseline-terms {terms}\nconfounds trans_? rot_*\nconfounds framewise_displacement motion_outlier*\n"
    data, tables = write_study(kep.dir, rng, header)
    r = kep.script("read-GLM study.glm\nGLM-fit-events fx\nwrite fx.nii fx\nquit\n")
    assert "written to file fx.\n" in r.stdout, r  # a command file stops at its first error
    X = design(tables, terms, {"trans_x", "trans_y", "rot_z", "framewise_displacement", "motion_outlier00"})
    Y = series(data)
    beta = np.linalg.lstsq(X, Y.T, rcond=None)[0].T
    effects = series(load(kep.path("fx.nii")))
    assert effects.shape == (np.prod(SHAPE), 2)  # confounds are not maps
    # relative, with effects below the noise SD (1) compared absolutely
    assert close(effects, beta[:, :2], 1.0) < 1e-5
    # one run lacks the outlier column: its pattern matches nothing there
    assert ("Warning: run 1: no column of the table file sub-01_run-1_desc-confounds_timeseries.tsv "
            "matches motion_outlier*.\n") in r.stdout
    assert "event 1 = faces\nevent 2 = houses\n" in r.stdout
    assert "in the following event order:\nevent 1 (faces)\nevent 2 (houses)\n" in r.stdout
    assert "hist[1] = " in r.stdout and "for event 2 (houses)\n" in r.stdout


@pytest.mark.parametrize("header,runs,message", [
    ("confounds trans_x cosine00\n", None,
     "Error: run 1: the confounds column cosine00 is not in the table file "
     "sub-01_run-1_desc-confounds_timeseries.tsv.\n"),
    ("confounds trans_x\n", "sub-01_run-1_bold.nii.gz sub-01_run-1_events.tsv\n",
     "Error: confounds are named, but run 1 has no table file.\n"),
    ("confounds trans_x\n", "sub-01_run-1_bold.nii.gz sub-01_run-1_events.tsv short.tsv\n",
     "Error: the table file short.tsv of run 1 has 3 rows; the run has 37 images.\n"),
    ("confounds\n", None, "Error reading line 1 of file 'study.glm':\n"),
    ("TR 0\n", None, "Error: `TR' requires the time between volumes in seconds (> 0).\n"),
])
def test_confound_and_timing_errors_name_the_run(kep, header, runs, message):
    write_study(kep.dir, np.random.default_rng(1), header)
    (kep.dir / "short.tsv").write_text("trans_x\n1\n2\nn/a\n")
    if runs:
        (kep.dir / "study.glm").write_text(header + "conditions 1\nruns:\n" + runs)
    r = kep.stdin("read-GLM study.glm\nshow-stacks\nquit\n")
    assert message in r.stdout, r
    assert "glm\r" not in r.stdout


def test_bold_human_response_is_the_double_gamma(kep):
    write_study(kep.dir, np.random.default_rng(2), "notify\nIRF BOLD-human\n")
    r = kep.stdin("read-GLM study.glm\nquit\n")
    assert "HRF type   = double-gamma\n" in r.stdout, r
    rows = np.loadtxt(kep.path("HRF.dat"), skiprows=1)
    t, y = rows[:, 0], rows[:, 1]
    assert len(t) == 1200 and t[1] == pytest.approx(0.1)
    np.testing.assert_allclose(y / 0.1, stats.gamma.pdf(t, 6) - stats.gamma.pdf(t, 16) / 6, atol=1e-6)
    assert 4.5 < t[np.argmax(y)] < 6 and 14 < t[np.argmin(y)] < 17

"""GLM-write-design: the design matrix as a tab-separated file, against the
numpy rebuild of the model's rules in glm_model."""
import numpy as np

from glm_model import Study


def read_tsv(path):
    lines = path.read_text().splitlines()
    comments = [line for line in lines if line.startswith("#")]
    rows = [line.split("\t") for line in lines if not line.startswith("#")]
    return comments, rows[0], np.array(rows[1:], dtype=float)


def test_design_file_equals_the_model_with_named_columns_and_marked_exclusions(kep):
    # Event 10 ('a') shows that columns carry event numbers; three runs of an odd length.
    study = Study(nimg=23, nruns=3, terms=3, header="AR 2 5\n", conditions="1 a",
                  events={1: [(4, 12, 1), (30, 38, 1)], 10: [(16, 24, 1.5)]}, exclude={1: [(3, 5)]})
    study.write(kep.dir, np.zeros((2, 2, 1, study.ntime)))
    r = kep.script("read-GLM study.glm\nGLM-write-design design.tsv\n")
    assert "Fatal" not in r.stderr, r
    comments, header, table = read_tsv(kep.path("design.tsv"))
    terms = ["constant", "linear", "quadratic"]
    assert header == (["image", "run", "excluded", "event_1", "event_10"]
                      + [f"run{r}_{t}" for t in terms for r in (1, 2, 3)])
    assert any(c.startswith("# AR order 2,") for c in comments)
    inc = study.include()
    np.testing.assert_array_equal(table[:, 0], np.arange(study.ntime))
    np.testing.assert_array_equal(table[:, 1], np.repeat([1, 2, 3], 23))
    np.testing.assert_array_equal(table[:, 2], (~inc).astype(float))
    # events as modelled; each baseline column the model's power of the run's time up to a
    # shift within its run (kep centres them)
    difference = table[:, 3:] - study.design()
    np.testing.assert_allclose(difference[inc, :2], 0, atol=2e-7)
    for run in (1, 2, 3):
        rows = inc & (table[:, 1] == run)
        assert np.ptp(difference[rows, 2:], axis=0).max() < 2e-7


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
    _, header, table = read_tsv(kep.path("design.tsv"))
    chosen = {"trans_x", "trans_y", "framewise_displacement", "motion_outlier00"}
    confounds = [f"run{r + 1}_{c}" for r, t in enumerate(tables) for c in t if c in chosen]
    assert header == ["image", "run", "excluded", "event_1:faces", "event_2:houses", "run1_constant",
                      "run2_constant"] + confounds
    np.testing.assert_allclose(table[:, 3:], design(tables, 1, chosen), atol=1e-6)

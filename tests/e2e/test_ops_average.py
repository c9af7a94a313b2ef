"""Averaging commands compared sample by sample with numpy."""
import numpy as np

from conftest import assert_close, random_stack, run_ops


SHAPE = (10, 3, 4, 6)  # t, z, y, x


def test_average_of_a_subset_by_groups_and_by_epochs(kep):
    a = random_stack(SHAPE, 2)
    r, out = run_ops(kep, {"a": a}, "average m a>7,1,4\naverage-by 3 g a\naverage-epochs 4 e a", ["m", "g", "e"])
    x = a.astype(np.complex128)
    assert_close(out["m"], x[[7, 1, 4]].mean(axis=0, keepdims=True))
    assert_close(out["g"], x[:9].reshape(3, 3, *SHAPE[1:]).mean(axis=1))
    assert_close(out["e"], x[:8].reshape(2, 4, *SHAPE[1:]).mean(axis=0))


def test_average_stacks_skips_zero_samples(kep):
    stacks = {name: random_stack(SHAPE, 3 + i, zeros=0.3) for i, name in enumerate("abc")}
    r, out = run_ops(kep, stacks, "average-stacks m a b>2 c", ["m"])
    x = np.stack([s.astype(np.complex128) for s in stacks.values()])
    counted = x.real != 0
    n = counted.sum(axis=0)
    total = np.where(counted, x, 0).sum(axis=0)
    assert_close(out["m"], np.where(n > 0, total / np.maximum(n, 1), 0))


def test_weighted_average_discounts_the_volume_far_from_the_mean_slice_by_slice(kep):
    """Six noisy copies, the fourth far off in slice 0 only: it is all but ignored there."""
    base = random_stack(SHAPE[1:], 6) + 3
    a = (base[None] + 1e-3 * random_stack((6,) + SHAPE[1:], 7)).astype(np.complex64)
    a[3, 0] += 5
    r, out = run_ops(kep, {"a": a}, "weighted-average w a>0-5", ["w"])
    good = np.abs(np.delete(a, 3, axis=0).astype(np.complex128).mean(axis=0))
    assert_close(out["w"][0], good + 0j, rtol=0, atol=1e-3)
    plain = np.abs(a.astype(np.complex128).mean(axis=0))
    assert np.abs(plain[0] - good[0]).min() > 0.5  # so the check above does discriminate


def test_failures_create_nothing(kep):
    a = random_stack(SHAPE, 7)
    b = random_stack((2, 3, 4, 2), 8)
    r, out = run_ops(kep, {"a": a, "b": b},
                     "average-by 1 m a\naverage-stacks m a b\nweighted-average m a>3\naverage m a b\nshow-stacks",
                     [])
    assert r.stderr == ("Error: Volumes should be averaged in sets of 2 or more.\n"
                        "Error: Stacks a and b have different dimensions.\n"
                        "Error: Stacks a and b have different dimensions.\n")
    assert "Error: the requested number of time points (1) is < 2!\n" in r.stdout
    assert "\nm\r" not in r.stdout

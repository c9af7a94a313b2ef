"""Clipping, padding, mirrors and reordering compared sample by sample with numpy."""
import numpy as np
import pytest

from conftest import assert_close, random_stack, read_header, run_ops


SHAPE = (2, 4, 6, 8)  # t, z, y, x


def pad_axes(x, sizes):
    """Zero-fills x [t, z, y, x] to the sizes (z, y, x), centred, scaled by nt times the voxel ratio."""
    nt = x.shape[0]
    out = np.zeros((nt,) + sizes, np.complex128)
    offsets = [(n - o) // 2 for n, o in zip(sizes, x.shape[1:])]
    window = tuple(slice(o, o + n) for o, n in zip(offsets, x.shape[1:]))
    out[(slice(None),) + window] = x * np.float32(nt * np.prod(sizes) / np.prod(x.shape[1:]))
    return out


@pytest.mark.parametrize("command,sizes", [
    ("pad-x", (4, 6, 16)), ("pad-y", (4, 8, 8)), ("pad-z", (8, 6, 8)), ("pad-xy", (4, 8, 16)),
    ("pad-xyz", (8, 8, 16)), ("pad-to 12", (4, 12, 12)), ("pad-x-to 14", (4, 6, 14)), ("pad-2^n", (4, 8, 8)),
])
def test_padding(kep, command, sizes):
    a = random_stack(SHAPE, 1)
    r, out = run_ops(kep, {"a": a}, f"{command} a", ["a"])
    assert r.stdout.count(f"Stack a was padded from 8 x 6 x 4 to {sizes[2]} x {sizes[1]} x {sizes[0]}.\n") == 1
    assert_close(out["a"], pad_axes(a.astype(np.complex128), sizes), rtol=1e-6, atol=0)


@pytest.mark.parametrize("command,window", [
    ("clip-x", (slice(None), slice(None), slice(2, 6))),
    ("clip-y", (slice(None), slice(1, 5), slice(None))),
    ("clip-z", (slice(1, 3), slice(None), slice(None))),
    ("clip-y-to 2", (slice(None), slice(2, 4), slice(None))),
])
def test_clipping_keeps_the_centre_and_moves_the_origin(kep, command, window):
    a = random_stack(SHAPE, 2)
    r, out = run_ops(kep, {"a": a}, f"{command} a", ["a"])
    expected = a[(slice(None),) + window]
    assert f"Stack a was clipped from 6 x 8 to {expected.shape[2]} x {expected.shape[3]}.\n" in r.stdout
    assert_close(out["a"], expected, rtol=0, atol=0)
    origin = [float(v) for v in read_header(kep.path("out_a.hdr"))["origin"]]
    # Unit voxels and directions: the origin moves by the number of dropped leading voxels.
    assert origin == pytest.approx([window[2].start or 0, window[1].start or 0, window[0].start or 0])


def test_mirrors_and_slice_reversal_and_order(kep):
    a = random_stack(SHAPE, 3)
    r, out = run_ops(kep, {"a": a, "b": a, "c": a, "d": a}, "mirror-left-right a\nmirror-up-down b>1\n"
                     "reverse-slice-order c\nset slice-order 2 0 3 1\nreorder-slices d", ["a", "b", "c", "d"])
    x = a.astype(np.complex128)
    assert_close(out["a"], x[..., ::-1], rtol=0, atol=0)
    expected = x.copy()
    expected[1] = np.roll(x[1, :, ::-1, :], 1, axis=1)  # row y takes row (ny - y) mod ny
    assert_close(out["b"], expected, rtol=0, atol=0)
    assert_close(out["c"], x[:, ::-1], rtol=0, atol=0)
    expected = np.empty_like(x)
    expected[:, [2, 0, 3, 1]] = x
    assert_close(out["d"], expected, rtol=0, atol=0)


def test_shuffle_and_slice(kep):
    a = random_stack((3,) + SHAPE[1:], 5)
    b = random_stack((3,) + SHAPE[1:], 6)
    r, out = run_ops(kep, {"a": a, "b": b}, "shuffle s a b\nslice 2 e s", ["s", "e"])
    interleaved = np.stack([a, b], axis=1).reshape((6,) + SHAPE[1:])
    assert_close(out["s"], interleaved, rtol=0, atol=0)
    assert_close(out["e"], interleaved[::2], rtol=0, atol=0)


def test_failed_reshapes_change_nothing(kep):
    a = random_stack(SHAPE, 7)
    r, out = run_ops(kep, {"a": a}, "clip-x-to 33 a\npad-to 100000 a", ["a"])
    assert "Error: clip only to even numbers!\n" in r.stdout
    assert "Error: The stack a cannot hold 100000 x 100000 x 4 x 2 samples.\n" in r.stderr
    assert_close(out["a"], a, rtol=0, atol=0)

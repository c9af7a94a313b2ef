"""Arithmetic and complex-form commands compared sample by sample with numpy."""
import numpy as np
import pytest

from conftest import assert_close, random_stack, run_ops


SHAPE = (3, 2, 5, 4)  # t, z, y, x


def parts(data, op):
    """Applies a real function to both parts of complex data."""
    return op(data.real.astype(np.float64)) + 1j * op(data.imag.astype(np.float64))


@pytest.mark.parametrize("command,k,op", [
    ("add-constant", 2.5, lambda v, k: v + k),
    ("subtract-constant", -1.25, lambda v, k: v - k),
    ("multiply-constant", 3.0, lambda v, k: v * k),
    ("divide-constant", 7.0, lambda v, k: v / k),
    ("ln", 0.5, lambda v, k: np.where(v / k > 0, np.log(np.where(v / k > 0, v / k, 1)), 0)),
    ("exp", 2.0, lambda v, k: np.exp(v / k)),
])
def test_constant_operations_on_both_parts(kep, command, k, op):
    a = random_stack(SHAPE, 1)
    r, out = run_ops(kep, {"a": a}, f"{command} {k} a>0,2", ["a"])
    expected = a.astype(np.complex128)
    expected[[0, 2]] = parts(a[[0, 2]], lambda v: op(v, k))
    assert_close(out["a"], expected)


@pytest.mark.parametrize("command", ["add", "subtract", "multiply", "divide", "add-stacks", "subtract-stacks",
                                     "multiply-stacks", "divide-stacks"])
def test_reference_volume_and_whole_stack_operations(kep, command):
    """A reference volume acts on every volume; a whole stack ignores the subset."""
    a = random_stack(SHAPE, 3)
    whole = command.endswith("-stacks")
    b = random_stack(SHAPE if whole else (1,) + SHAPE[1:], 4, zeros=0.2)
    r, out = run_ops(kep, {"a": a, "b": b}, f"{command} b a" + (">1" if whole else ""), ["a"])
    assert "Error" not in r.stderr, r
    x, c = a.astype(np.complex128), b.astype(np.complex128)
    with np.errstate(all="ignore"):
        expected = {"add": x + c, "subtract": x - c, "multiply": x * c,
                    "divide": np.where(c == 0, 0, x / np.where(c == 0, 1, c))}[command.split("-")[0]]
    assert_close(out["a"], expected)


def test_division_by_zero_and_mismatched_shapes_change_nothing(kep):
    a = random_stack(SHAPE, 7)
    b = random_stack((3, 2, 5, 2), 8)
    r, out = run_ops(kep, {"a": a, "b": b}, "divide-constant 0 a\nln 0 a\nexp 0 a\nadd-stacks b a\nadd b>0 a", ["a"])
    assert r.stderr == ("Error: You are attempting division by zero.\n" * 3 +
                        "Error: Stacks a and a have different dimensions.\n"
                        "Error: Stacks a and b have different dimensions.\n")
    assert_close(out["a"], a, rtol=0, atol=0)


def test_absolute_value_and_arc_tangent(kep):
    a = random_stack(SHAPE, 9)
    ref = random_stack((1,) + SHAPE[1:], 10)
    r, out = run_ops(kep, {"a": a, "b": a, "r": ref}, "abs a\natan r b", ["a", "b"])
    assert_close(out["a"], np.abs(a.astype(np.complex128)))
    expected = np.degrees(np.arctan(-np.abs(ref.astype(np.complex128)) / np.abs(a.astype(np.complex128))))
    assert_close(out["b"], expected + 0j, rtol=1e-5, atol=1e-4)


def test_blood_volume_map(kep):
    mags = np.random.default_rng(11).uniform(0.5, 2.0, (6,) + SHAPE[1:]).astype(np.float32)
    mags[3, 0, 0, 0] = 0  # a zero amplitude gives 0
    r, out = run_ops(kep, {"v": mags + 0j}, "create-fCBV1 f v", ["f"])
    p, q, b, s = (np.abs(mags[i].astype(np.float64)) for i in (0, 1, 2, slice(3, None)))
    with np.errstate(divide="ignore"):
        expected = 10000 * np.log(s / b) / np.log(q / p)
    expected[0, 0, 0, 0] = 0
    assert_close(out["f"], expected + 0j, rtol=2e-5, atol=2e-2)


def test_polar_round_trip_and_signed_form(kep):
    a = random_stack(SHAPE, 12)
    a[0, 0, 0, :] = [0, -1, 0, 0]
    a.imag[0, 0, 0, :] = [2, 0, -3, 0]
    r, out = run_ops(kep, {"a": a, "b": a, "c": a}, "convert-complex a b\nconvert-complex b\nconvert-to-real c",
                     ["a", "b", "c"])
    x = a.astype(np.complex128)
    assert_close(out["a"], np.abs(x) + 1j * np.degrees(np.angle(x)), rtol=1e-5, atol=1e-4)
    assert out["a"][0, 0, 0, :2].tolist() == [2 + 90j, 1 + 180j]
    assert_close(out["b"], x, rtol=1e-5, atol=1e-5)
    assert_close(out["c"], x.real + 0j, rtol=0, atol=0)

"""Small GLM studies for the stack commands and a numpy model of what they compute: design, least
squares, and the two-pass autoregressive fit (bias-reduced autocorrelations, smoothed, whitened)."""
import math
from dataclasses import dataclass, field

import nibabel as nib
import numpy as np

TR = 2.0
RES = (3.0, 3.0, 4.0)
EVENTS = "0123456789abcdefghijklmnopqrstuvwxyz"  # the character of each event number


@dataclass
class Study:
    """Square events (number -> [(on, off, magnitude)] s) over `nruns` runs of `nimg` images, TR 2 s."""
    nimg: int = 40
    nruns: int = 2
    events: dict = field(default_factory=lambda: {1: [(5, 17, 1), (45, 57, 1)], 2: [(25, 37, 1), (63, 71, 2)]})
    terms: int = 3
    header: str = ""
    conditions: str = "1 2"
    exclude: dict = field(default_factory=dict)  # run -> [(first, last)] image numbers of the run

    @property
    def ntime(self):
        return self.nimg * self.nruns

    def write(self, directory, data):
        """data [nx, ny, nz, ntime]; one NIfTI file and one event file per run."""
        runs = ""
        for r in range(self.nruns):
            text = f"{TR:g} {self.nimg * TR:g}\n"
            for number, stims in self.events.items():  # a number, or the line that defines the event
                text += f"\n{number if isinstance(number, str) else EVENTS[number]}\n"
                text += "".join(" ".join(f"{v:g}" for v in stim) + "\n" for stim in stims)
            if self.exclude.get(r):
                text += "\n-1\n" + "".join(f"{a} {b}\n" for a, b in self.exclude[r])
            (directory / f"run{r}.glm").write_text(text)
            block = np.asarray(data[..., r * self.nimg:(r + 1) * self.nimg], dtype=np.float32)
            img = nib.Nifti1Image(block, np.diag([*RES, 1.0]))
            img.header.set_zooms((*RES, TR))
            nib.save(img, str(directory / f"run{r}.nii"))
            runs += f"run{r}.nii run{r}.glm\n"
        (directory / "study.glm").write_text(
            f"baseline-terms {self.terms}\n{self.header}conditions {self.conditions}\nruns:\n{runs}")

    def include(self):
        inc = np.ones(self.ntime, dtype=bool)
        for r, segments in self.exclude.items():
            for a, b in segments:
                inc[r * self.nimg + a:r * self.nimg + b + 1] = False
        return inc

    def design(self):
        """Event columns (peak 1), then per term and run the powers of the run's time (kep centres
        them: same span); excluded rows zero."""
        n = self.ntime
        t = np.arange(n) * TR
        cols = []
        for stims in self.events.values():
            x = np.zeros(n)
            for r in range(self.nruns):
                for on, off, m in stims:
                    start = r * self.nimg * TR
                    x[(t >= start + on) & (t <= start + off)] += m
            cols.append(x / np.abs(x).max())
        for k in range(self.terms):
            for r in range(self.nruns):
                x = np.zeros(n)
                x[r * self.nimg:(r + 1) * self.nimg] = (np.arange(self.nimg) / (self.nimg - 1)) ** k
                cols.append(x)
        X = np.array(cols).T
        X[~self.include()] = 0
        return X


def contrasts(word, ncoeff, events=None):
    """Contrast rows of a condition word ("1-2", "1,2,3"); `events` lists the event of each column."""
    events = events or list(range(1, ncoeff + 1))
    rows, sign = [np.zeros(ncoeff)], 1
    for ch in word:
        if ch == ",":
            rows.append(np.zeros(ncoeff))
            sign = 1
        elif ch == "-":
            sign = -1
        else:
            rows[-1][events.index(int(ch))] += sign
    return np.array(rows)


def ar_noise(rng, shape, phi, sd=1.0):
    """Stationary AR(len(phi)) noise along the last axis."""
    e = rng.normal(0, sd, size=(*shape[:-1], shape[-1] + 50))
    x = np.zeros_like(e)
    for t in range(e.shape[-1]):
        x[..., t] = e[..., t] + sum(phi[k - 1] * x[..., t - k] for k in range(1, min(len(phi), t) + 1))
    return x[..., 50:]


def simulate(rng, study, shape, phi=(), sd=2.0):
    """Series [voxel, time]: random effects (a third null) on a baseline of 100, white or AR noise."""
    X = study.design()
    nvox, ne = int(np.prod(shape)), len(study.events)
    beta = np.zeros((nvox, X.shape[1]))
    beta[:, :ne] = rng.normal(0, 1.5, size=(nvox, ne)) * (rng.random((nvox, ne)) < 0.66)
    beta[:, ne:] = rng.normal(0, 1, size=(nvox, X.shape[1] - ne))
    beta[:, ne:ne + study.nruns] += 100
    if phi:
        noise = series(ar_noise(rng, (*shape, study.ntime), phi, sd))
    else:
        noise = rng.normal(0, sd, size=(nvox, study.ntime))
    return (beta @ X.T + noise).astype(np.float32).astype(np.float64)


def ols(X, inc, Y):
    """Coefficients [nvox, ncoeff] and fits [nvox, ntime] of series Y [nvox, ntime]."""
    Xi = X[inc]
    beta = np.linalg.lstsq(Xi, Y[:, inc].T, rcond=None)[0].T
    return beta, beta @ X.T


def residual_forming(X, inc):
    H = X @ np.linalg.inv(X.T @ X) @ X.T
    return np.diag(inc.astype(float)) - H * np.outer(inc, inc)


def shifted(R, k):
    """S[a][b] = R[a][b - k], zero outside the matrix."""
    S = np.roll(R, k, axis=1)
    S[:, :max(k, 0)] = 0
    S[:, R.shape[1] + min(k, 0):] = 0
    return S


def mixing_inverse(R, inc, p):
    M = np.zeros((p + 1, p + 1))
    for i in range(p + 1):
        A = shifted(R, i)
        for j in range(p + 1):
            B = np.diag(inc.astype(float)) if j == 0 else shifted(R, j) + shifted(R, -j)
            M[i, j] = np.sum(A * B.T)
    return np.linalg.inv(M)


def autocorrelations(R, Minv, inc, y, p):
    e = R @ (inc * y)
    c = Minv @ np.array([e[k:] @ e[:len(e) - k] for k in range(p + 1)])
    if c[0] == 0:
        c[0] = 1
    return c[1:] / c[0]


def smooth(maps, fwhm, res=RES):
    """Gaussian of the given FWHM over the first three axes, renormalised inside the volume."""
    s = float(np.float32(np.float32(np.float32(fwhm * np.float32(1.44)) / 2) * np.float32(fwhm)) / 2)
    radius = math.sqrt(3 * s)
    out = np.asarray(maps, dtype=np.float64)
    for axis in range(3):
        n = out.shape[axis]
        h = min(math.ceil(radius / res[axis]), n - 1)
        g = np.exp(-(np.arange(-h, h + 1) ** 2) * res[axis] ** 2 / s)
        moved = np.moveaxis(out, axis, 0)
        acc = np.zeros_like(moved)
        norm = np.zeros(n)
        for i, w in zip(range(-h, h + 1), g):
            lo, hi = max(0, -i), min(n, n - i)
            acc[lo:hi] += w * moved[lo + i:hi + i]
            norm[lo:hi] += w
        out = np.moveaxis(acc / norm.reshape((n,) + (1,) * (moved.ndim - 1)), 0, axis)
    return out


def whitening_filter(rho, n):
    """Start-up rows from the inverse Cholesky factor, then its last row's taps; order drops on failure."""
    q = len(rho)
    r = np.concatenate([[1.0], rho])
    while q > 0:
        T = np.array([[r[abs(i - j)] for j in range(q + 1)] for i in range(q + 1)])
        try:
            L = np.linalg.cholesky(T)
            break
        except np.linalg.LinAlgError:
            q -= 1
    if q == 0:
        return np.eye(n)
    Li = np.linalg.inv(L)
    W = np.zeros((n, n))
    for s in range(q + 1):
        idx = np.arange(n - s)
        W[idx + s, idx] = Li[q, q - s]
    W[:q + 1, :q + 1] = Li
    return W


def ar_fit(X, inc, Y, shape, p, fwhm):
    """First pass on series Y [voxel, time] of a grid `shape`: the smoothed autocorrelations (zero
    for all-zero voxels) the refit whitens with."""
    nvox = Y.shape[0]
    active = np.any(Y != 0, axis=1)
    R = residual_forming(X, inc)
    Minv = mixing_inverse(R, inc, p)
    rho = np.zeros((nvox, p))
    for v in np.flatnonzero(active):
        rho[v] = autocorrelations(R, Minv, inc, Y[v], p)
    if fwhm > 0:
        weight = series(smooth(grid(active.astype(float), shape), fwhm)[..., None])[:, 0]
        sm = series(smooth(grid(rho * active[:, None], shape), fwhm))
        rho = np.where(active[:, None], sm / np.where(weight > 0, weight, 1)[:, None], 0)
    return rho


def series(volume):
    """[x, y, z, t] -> [voxel, t] with x fastest, as the stacks hold voxels."""
    nx, ny, nz, nt = volume.shape
    return np.asarray(volume, dtype=np.float64).transpose(2, 1, 0, 3).reshape(-1, nt)


def grid(values, shape):
    """[voxel, ...] -> [x, y, z, ...]."""
    nx, ny, nz = shape
    rest = values.shape[1:]
    return values.reshape(nz, ny, nx, *rest).transpose(2, 1, 0, *range(3, 3 + len(rest)))


def load(path):
    return np.asarray(nib.load(str(path)).dataobj, dtype=np.float64)


def close(got, expected, floor):
    """max |got - expected| / (|expected| + floor): relative, absolute below `floor`."""
    return float(np.max(np.abs(got - expected) / (np.abs(expected) + floor)))


def bold_response(factor, step=0.1, length=120.0):
    """The BOLD-monkey preset response with its three time constants scaled by `factor`."""
    taus = np.array([1.5, 4.5, 13.5]) * factor
    weights = np.array([0.0, 0.7, -0.3])
    weights[0] = -taus[0] * (weights[1] / taus[1] + weights[2] / taus[2])
    t = np.arange(int(max(length, 5 * taus.max()) / step + 0.5)) * step
    return (step * weights / taus * np.exp(-t[:, None] / taus)).sum(axis=1)

"""Line-laser profile analysis on numpy arrays.

A profile is an (N, 3) array of x, y, z (any float dtype, converted once) or a
1-D array of ``point_dtype`` records, which the routines use without a copy.
A scan is an (L, P, 3) array, an (L, P) array of ``point_dtype`` or a list of
profiles of different lengths. A point is measured when z >= 0.0001.

Every routine names the C routine it calls in its docstring; python/README.md
has the whole table.
"""

import numpy as _np

from ._core import *  # noqa: F401,F403
from ._core import __version__, point_dtype

__all__ = [name for name in dir() if not name.startswith("_")] + ["as_points", "scan_from_range_image"]


def as_points(xyz, idx=None):
    """A point_dtype array (idx, x, y, z) from an (N, 3) or (L, P, 3) array.

    idx defaults to each point's index within its line (0, 1, ...); give an
    integer array of the leading shape to set it. The result is writeable and
    C-contiguous, so in-place routines change it without a copy.
    """
    xyz = _np.asarray(xyz)
    if xyz.ndim not in (2, 3) or xyz.shape[-1] != 3:
        raise ValueError(f"xyz: expected an (N, 3) or (L, P, 3) array, got shape {xyz.shape}")
    if xyz.dtype.kind not in "fiu":
        raise TypeError(f"xyz: expected numbers, got dtype {xyz.dtype}")
    out = _np.empty(xyz.shape[:-1], dtype=point_dtype)
    out["x"], out["y"], out["z"] = xyz[..., 0], xyz[..., 1], xyz[..., 2]
    if idx is None:
        out["idx"] = _np.arange(xyz.shape[-2])
    else:
        idx = _np.asarray(idx)
        if idx.shape != out.shape or idx.dtype.kind not in "iu":
            raise ValueError(f"idx: expected integers of shape {out.shape}, got {idx.dtype} of shape {idx.shape}")
        out["idx"] = idx
    return out


def scan_from_range_image(img, pitch_x, pitch_y, z_scale=1.0):
    """A scan ((L, P) point_dtype) from a range image whose rows are profiles.

    Row l, column p becomes x = l * pitch_x, y = p * pitch_y,
    z = img[l, p] * z_scale. img is 16-bit (0 means nothing measured) or float
    (0, NaN and infinities mean nothing measured); unmeasured points get z = 0.
    Transpose an image whose columns are the profiles first.
    """
    img = _np.asarray(img)
    if img.ndim != 2:
        raise ValueError(f"img: expected a 2-D range image, got shape {img.shape}")
    if img.dtype.kind not in "fiu":
        raise TypeError(f"img: expected a 16-bit or float image, got dtype {img.dtype}")
    z = img.astype(_np.float64) * z_scale
    z[~_np.isfinite(z) | (img == 0)] = 0.0
    lines, points = img.shape
    out = _np.empty((lines, points), dtype=point_dtype)
    out["idx"] = _np.arange(points)
    out["x"] = (_np.arange(lines) * float(pitch_x))[:, None]
    out["y"] = _np.arange(points) * float(pitch_y)
    out["z"] = z
    return out

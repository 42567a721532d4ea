#!/usr/bin/env python3
"""The typical pass over one scan, from Python, with a picture of the result.

    /usr/bin/python3 examples/python/scan_pass.py SCAN [-o scan_pass.png]

Bounding box, plane calibration and levelling, smoothing and outlier removal,
corner and L/V features over the whole scan, feature trees, and a matplotlib
figure of the levelled height map with the trees drawn on it.

SCAN is an organized point cloud or a range image:
  .pcd  organized PCD (ascii, binary or binary_compressed); read through Open3D
        when it is installed, else by the small reader below
  .ply  Cyberware range-grid PLY (one profile per grid column)
  .csv  x,y,z rows, --points-per-line points per profile
  .png/.tif/.npy  range image whose rows are profiles (--pitch, --z-scale)
Without SCAN a synthetic belt with boxes is used. Depth-camera clouds (z is
the distance from the camera) are turned into heights with --depth.
"""
import argparse
import os
import struct

import numpy as np

import profile_analysis as pa

MEASURED = 0.0001  # the library's validity limit on z


# --------------------------------------------------------------------------- readers
def lzf_decompress(data, size):
    """liblzf decompression (PCD binary_compressed)."""
    out, i, o = bytearray(size), 0, 0
    while i < len(data) and o < size:
        ctrl = data[i]
        i += 1
        if ctrl < 32:  # literal run of ctrl + 1 bytes
            out[o:o + ctrl + 1] = data[i:i + ctrl + 1]
            i, o = i + ctrl + 1, o + ctrl + 1
            continue
        length = ctrl >> 5
        if length == 7:
            length += data[i]
            i += 1
        ref = o - ((ctrl & 31) << 8) - data[i] - 1
        i += 1
        for k in range(length + 2):  # back-references may overlap their own output
            out[o + k] = out[ref + k]
        o += length + 2
    return bytes(out)


def read_pcd(path):
    """(height, width, 3) array of an organized PCD, one profile per row, in the
    library's frame (x across rows, y along them); NaN where nothing was measured."""
    with open(path, "rb") as f:
        header = {}
        while True:
            line = f.readline().decode("ascii").strip()
            if line.startswith("#") or not line:
                continue
            key, _, value = line.partition(" ")
            header[key] = value.split()
            if key == "DATA":
                break
        body = f.read()
    fields, sizes, types = header["FIELDS"], list(map(int, header["SIZE"])), header["TYPE"]
    counts = list(map(int, header.get("COUNT", ["1"] * len(fields))))
    width, height = int(header["WIDTH"][0]), int(header["HEIGHT"][0])
    n = width * height
    dtype = np.dtype([(name, {"F": "<f", "U": "<u", "I": "<i"}[t] + str(s), (c,) if c > 1 else ())
                      for name, s, t, c in zip(fields, sizes, types, counts)])
    try:
        import open3d as o3d  # optional: its reader keeps NaN points, so the grid stays organized
        cloud = o3d.io.read_point_cloud(path, remove_nan_points=False, remove_infinite_points=False)
        xyz = np.asarray(cloud.points)
        if len(xyz) == n:
            return xyz.reshape(height, width, 3)[..., [1, 0, 2]]
    except ImportError:
        pass
    kind = header["DATA"][0]
    if kind == "ascii":
        rows = np.loadtxt(body.decode("ascii").splitlines(), ndmin=2)
        cols = np.cumsum([0] + counts)
        get = {name: rows[:, cols[k]] for k, name in enumerate(fields)}
    elif kind == "binary":
        rec = np.frombuffer(body, dtype, count=n)
        get = {name: rec[name] for name in fields}
    else:  # binary_compressed: field after field
        packed, size = struct.unpack("<II", body[:8])
        raw = lzf_decompress(body[8:8 + packed], size)
        get, offset = {}, 0
        for name, s, t, c in zip(fields, sizes, types, counts):
            get[name] = np.frombuffer(raw, dtype[name].base, count=n * c, offset=offset)
            offset += n * s * c
    return np.stack([get["y"], get["x"], get["z"]], axis=-1).astype(float).reshape(height, width, 3)


def read_range_grid_ply(path):
    """(columns, rows, 3) array of a Cyberware range-grid PLY: one profile per grid column."""
    with open(path, "rb") as f:
        text = f.read().decode("ascii")
    head, _, body = text.partition("end_header")
    info = dict(line.split()[1:3] for line in head.splitlines() if line.startswith("obj_info") and
                len(line.split()) >= 3)
    cols, rows = int(info["num_cols"]), int(info["num_rows"])
    nvert = int(next(l.split()[2] for l in head.splitlines() if l.startswith("element vertex")))
    lines = body.split()
    verts = np.array(lines[:3 * nvert], float).reshape(nvert, 3)
    cells = lines[3 * nvert:]
    grid = np.full((rows * cols, 3), np.nan)
    k, v = 0, 0
    for cell in range(rows * cols):  # "0" (empty) or "1 k"
        if cells[k] == "0":
            k += 1
        else:
            grid[cell] = verts[int(cells[k + 1])]
            k, v = k + 2, v + 1
    return grid.reshape(rows, cols, 3).transpose(1, 0, 2)


def read_scan(args):
    ext = os.path.splitext(args.scan)[1].lower()
    if ext == ".pcd":
        return read_pcd(args.scan)
    if ext == ".ply":
        return read_range_grid_ply(args.scan)
    if ext == ".csv":
        xyz = np.loadtxt(args.scan, delimiter=",", ndmin=2)[:, :3]
        return xyz.reshape(-1, args.points_per_line, 3)
    img = np.load(args.scan) if ext == ".npy" else read_image(args.scan)
    return pa.scan_from_range_image(img, args.pitch, args.pitch, args.z_scale)


def read_image(path):
    try:
        import cv2
        return cv2.imread(path, cv2.IMREAD_UNCHANGED)
    except ImportError:  # matplotlib reads PNG as floats in 0..1 (scale with --z-scale)
        import matplotlib.image
        img = matplotlib.image.imread(path)
        return img[..., 0] if img.ndim == 3 else img  # grey saved as RGB(A): one channel


def synthetic_scan(lines=400, points=512):
    y = np.arange(points) * 0.5
    x = np.arange(lines) * 1.0
    z = 20.0 + 0.04 * y[None, :] + 0.01 * x[:, None]  # a tilted belt
    for y0, w, h, x0, x1 in ((40, 30, 25.0, 60, 300), (140, 20, 10.0, 120, 360)):
        z[(x[:, None] > x0) & (x[:, None] < x1) & (y[None, :] > y0) & (y[None, :] < y0 + w)] += h
    z += np.random.default_rng(1).normal(0, 0.05, z.shape)
    return pa.as_points(np.stack([np.broadcast_to(x[:, None], z.shape), np.broadcast_to(y[None, :], z.shape), z],
                                 axis=-1))


# --------------------------------------------------------------------------- the pass
def as_heights(xyz, scale, depth):
    """Heights above the lowest point (or below the farthest, for depth) plus 10,
    in the scan unit times scale; unmeasured points (NaN) get z = 0."""
    xyz = np.asarray(xyz, float) * scale
    missing = ~np.isfinite(xyz).all(axis=-1)
    out = xyz.copy()
    z = xyz[..., 2]
    valid = z[~missing]
    out[..., 2] = (valid.max() - z if depth else z - valid.min()) + 10.0 if valid.size else 0.0
    out[missing] = 0.0
    return pa.as_points(out)


def pitches(scan):
    valid = scan["z"] >= MEASURED
    dy = np.abs(np.diff(scan["y"], axis=1))[valid[:, 1:] & valid[:, :-1]]
    first = scan["x"][np.arange(len(scan)), valid.argmax(axis=1)][valid.any(axis=1)]
    dx = np.abs(np.diff(first))
    med = lambda v: float(np.median(v)) if v.size and np.median(v) > 0 else 1.0  # noqa: E731
    return med(dx), med(dy)


def run_pass(scan, threads, height_limit):
    lines = len(scan)
    px, py = pitches(scan)
    box = pa.scan_bounds(scan)
    report = [f"{lines} lines x {scan.shape[1]} points, pitch {px:.3g} x {py:.3g}",
              f"box x {box.x_range}, y {box.y_range}, z {box.z_range}"]
    calib = pa.plane_calibration(scan)
    if calib.height != -1.0:
        # Refit to the points near the plane: objects whose tops share the
        # floor's height band pull the histogram's fit.
        calib = pa.refine_plane_calibration(scan, calib, inlier_dist=0.4 * py)
        z_cut = calib.height + height_limit if height_limit > 0 else 0.0  # points above it are dropped
        pa.rotate_points(scan, calib.rotation, z_cut, threads=threads)  # in place
        tilt = pa.euler_from_matrix(calib.inverse_rotation)
        report.append(f"plane at {calib.height:.2f}, tilt roll {tilt.roll:.2f} pitch {tilt.pitch:.2f} degrees")
    else:
        report.append("plane calibration failed: the scan is used as it is")
    scan = pa.smooth(scan, 5, threads=threads)
    pa.remove_outliers_in_place(scan, pa.OutlierParam(continuity_th=4 * py, outlier_th=4), threads=threads)

    length_x = box.x_range[1] - box.x_range[0]
    grow = pa.TreeGrowParam(y_deviation_max=12 * py, z_deviation_max=12 * py, max_line_skip_num=5,
                            x_deviation_max=10 * px, min_l_type_tree_len=max(40 * px, 0.05 * length_x),
                            min_v_type_tree_len=max(40 * px, 0.05 * length_x))
    corner = pa.CornerParam(max_gap_y=8 * py, jump_z=12 * py, arm_len=6 * py, min_corner_angle=40.0,
                            arm_angle1=30.0, arm_angle2=10.0)
    corners, _ = pa.corner_features(scan, corner, threads=threads)
    slope = pa.SlopeParam(slope_range_y=40 * py, min_run_height=4 * py, jump_height=12 * py, max_gap_y=8 * py)
    lv, endings = pa.lv_features(scan, slope, pa.VFeatureParam(z_tol=4 * py, y_tol=8 * py), threads=threads)
    corner_trees = pa.grow_trees(corners, grow, line_count=lines)
    bag = pa.BagParam(length=max(10 * px, 0.3 * length_x), width=max(10 * py, 0.2 * (box.y_range[1] - box.y_range[0])))
    lv_trees, starts, ends, _ = pa.grow_lv_trees(lv, endings, bag, grow, line_count=lines)
    report += [f"corners {len(corners)} -> {len(corner_trees)} trees; L/V features {len(lv)} -> {len(lv_trees)} "
               f"trees, {len(starts)} free segment starts, {len(ends)} free ends"]
    return scan, {"corner": corner_trees, "L/V": lv_trees}, report


def draw(scan, trees, path, title):
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    height = np.where(scan["z"] >= MEASURED, scan["z"], np.nan).T  # rows: point index, columns: line
    fig, ax = plt.subplots(figsize=(9, 6))
    im = ax.imshow(height, origin="lower", aspect="auto", cmap="viridis", interpolation="nearest")
    fig.colorbar(im, ax=ax, label="levelled height (scan unit)")
    for (name, group), colour in zip(trees.items(), ("tab:red", "black")):
        for k, tree in enumerate(group):
            ax.plot(tree.nodes["line"], tree.nodes["idx"], color=colour, lw=1.2,
                    label=f"{name} trees ({len(group)})" if k == 0 else None)
    ax.set_xlabel("scan line")
    ax.set_ylabel("point index")
    ax.set_title(title)
    if any(trees.values()):
        ax.legend(loc="upper right", framealpha=0.8)
    fig.tight_layout()
    fig.savefig(path, dpi=110)


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("scan", nargs="?", help="scan file (see above); none: a synthetic scan")
    ap.add_argument("-o", "--output", default="scan_pass.png")
    ap.add_argument("--scale", type=float, default=None, help="length unit factor (default: 1000 for PCD/PLY in metres)")
    ap.add_argument("--depth", action="store_true", default=None, help="z is distance from the sensor (PCD default)")
    ap.add_argument("--points-per-line", type=int, default=0, help="CSV: points per profile")
    ap.add_argument("--pitch", type=float, default=1.0, help="range image: point and line pitch")
    ap.add_argument("--z-scale", type=float, default=1.0, help="range image: height per grey level")
    ap.add_argument("--height-limit", type=float, default=0.0, help="drop points this far above the plane (0: off)")
    ap.add_argument("--threads", type=int, default=os.cpu_count() or 1)
    args = ap.parse_args()

    ext = os.path.splitext(args.scan or "")[1].lower()
    xyz = read_scan(args) if args.scan else synthetic_scan()
    if isinstance(xyz, np.ndarray) and xyz.dtype == pa.point_dtype:
        scan = xyz
    else:
        scale = args.scale if args.scale is not None else (1000.0 if ext in (".pcd", ".ply") else 1.0)
        scan = as_heights(xyz, scale, args.depth if args.depth is not None else ext == ".pcd")
    scan, trees, report = run_pass(scan, args.threads, args.height_limit)
    print("\n".join(report))
    draw(scan, trees, args.output, os.path.basename(args.scan) if args.scan else "synthetic belt")
    print(f"figure: {args.output}")


if __name__ == "__main__":
    main()

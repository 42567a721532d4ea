"""Hand-worked cases per family, called through Python, and whole-scan calls."""
import numpy as np
import pytest
from helpers import CORNER, GROW, feature, profile, ramp_plateau

import profile_analysis as pa


def test_geometry():
    scan = [profile([0, 2, 3]), profile([1, 0], x=4.0)]  # zeros are unmeasured
    box = pa.scan_bounds(scan)
    assert (box.x_range, box.y_range, box.z_range) == ((0.0, 4.0), (0.0, 2.0), (1.0, 3.0))
    assert pa.scan_bounds(np.zeros((2, 3, 3))).z_range == (0.0, -1.0)  # nothing valid: empty range
    assert pa.fit_line([[0, 1], [1, 3], [2, 5]]) == (2.0, 1.0)  # y = 2 x + 1
    assert pa.line_pixels(0, 0, 3, 1).tolist() == [[0, 0], [1, 0], [2, 1], [3, 1]]
    yaw90 = pa.matrix_from_euler(pa.EulerAngles(yaw=90.0))
    assert np.allclose(yaw90, [[0, -1, 0], [1, 0, 0], [0, 0, 1]], atol=1e-15)
    back = pa.euler_from_matrix(yaw90)
    assert (back.roll, back.pitch) == (0.0, 0.0) and back.yaw == pytest.approx(90.0, abs=1e-12)
    rgbd = np.array([(1, 2, 3, 0xFF00FF00)], pa.rgbd_dtype)
    assert pa.rotate_rgbd(rgbd, yaw90) is rgbd and rgbd.tolist() == [(-2.0, 1.0, 3.0, 0xFF00FF00)]


def test_calibration():
    failed = pa.plane_calibration(np.zeros((3, 4, 3)))  # no valid point: the failure record
    assert failed.height == -1.0 and np.array_equal(failed.rotation, np.eye(3))
    flat = np.stack([profile([5.0] * 6, x=i) for i in range(6)])
    box = pa.Box3D(x_range=(0, 10), y_range=(0, 10), z_range=(0, 10))
    c = pa.plane_calibration_in_regions(flat, [box])
    assert c.height == pytest.approx(5.0) and np.allclose(c.rotation, np.eye(3))
    assert pa.plane_calibration_in_regions(flat, np.array([[0, 10, 0, 10, 0, 10]])).height == c.height
    # A failed start comes back unchanged; a levelled flat floor refits to itself (list and array alike).
    assert pa.refine_plane_calibration(flat, failed, 0.5).height == -1.0
    # A checkered floor (z 5.0 and 5.1, no trend along x or y) refits to the level plane, lowest at 5.0.
    ribbed = np.stack([profile([5.0, 5.1, 5.1, 5.0] if i % 2 else [5.1, 5.0, 5.0, 5.1], x=i) for i in range(6)])
    for scan in (ribbed, list(ribbed)):
        r = pa.refine_plane_calibration(scan, c, 0.5)
        assert r.height == pytest.approx(5.0) and np.allclose(r.rotation, np.eye(3))


def test_preprocess():
    assert pa.smooth(profile([1, 2, 3, 4, 5]), 3)["z"].tolist() == [1.5, 2, 3, 4, 4.5]
    # A jump of 10 cuts the segments: each side is smoothed on its own.
    assert pa.smooth_segments(profile([1, 2, 12, 13]), 5.0, 5.0, 3)["z"].tolist() == [1.5, 1.5, 12.5, 12.5]
    spike = profile([5, 5, 5, 20, 5, 5, 5])
    param = pa.OutlierParam(continuity_th=2.0, outlier_th=2.0)  # a lone point is a run too short
    for remove in (pa.remove_outliers, pa.remove_outliers_by_distance):
        cleaned, removed = remove(spike, param)
        assert removed.tolist() == [3] and cleaned["z"].tolist() == [5, 5, 5, 0, 5, 5, 5]
    _, rows = pa.remove_outliers(np.stack([spike, spike]), param)
    assert rows.tolist() == [[0, 3], [1, 3]]
    # Seeds in input order; each cluster point takes the remaining points nearer than 1.5.
    pts = pa.as_points(np.array([[0, 0, 0], [0, 1, 0], [0, 5, 0], [0, 6, 0], [0, 0.5, 0]]), idx=np.arange(10, 15))
    clusters = pa.cluster_points(pts, 1.5)
    assert [c["idx"].tolist() for c in clusters] == [[10, 11, 14], [12, 13]]


def test_detectors():
    features, endings = pa.corner_features(ramp_plateau(), CORNER, 3)
    assert features[["type", "line", "idx", "y", "z", "value"]].tolist() == [(1, 3, 10, 10.0, 20.0, 0.0)]
    assert endings[["type", "idx"]].tolist() == [(6, 0), (7, 20)]
    peaks, valleys, _ = pa.local_peaks(profile([1, 3, 1, 1]), 5.0, 2)
    assert peaks[["type", "line", "idx", "z"]].tolist() == [(14, 2, 1, 3.0)] and len(valleys) == 0
    jumps, _ = pa.down_jumps(profile([1, 1, 5, 5]), 2.0)
    assert jumps[["type", "idx", "z"]].tolist() == [(1, 1, 1.0)]
    for empty in (pa.jump_features(np.empty((0, 3)), CORNER), pa.glove_arcs(profile([1] * 5), GLOVE)):
        assert empty.dtype == pa.feature_dtype and len(empty) == 0


def test_tree_growing():
    lines = [feature(i, 10.0, 5.0, value=1.0) for i in range(5)]
    (tree,) = pa.grow_trees(np.concatenate(lines), GROW)
    assert (tree.state, tree.type, len(tree.nodes), tree.value) == (2, 1, 5, 4.0)  # seed value not counted
    trees = []
    for i, f in enumerate(lines):
        assert pa.grow_trees_by_line(i, i == 4, f, GROW, trees) is trees
    assert len(trees) == 1 and trees[0].value == 5.0  # here the seed's value counts
    (peak_tree,) = pa.grow_peak_trees(lines, GROW)
    assert peak_tree.x_range == (0.0, 4.0) and peak_tree.y_range == (10.0, 10.0)
    grid = np.stack([profile([5.0] * 12, x=i) for i in range(5)])
    ends = np.array([(i, 10, 7, 0.0, 0) for i in range(5)], pa.value2d_dtype)
    (end_tree,) = pa.grow_ending_trees(ends, grid, True, 7, GROW)
    assert end_tree.nodes[["type", "line", "idx", "y"]].tolist()[-1] == (7, 4, 10, 10.0)


SLOPE = pa.SlopeParam(slope_range_y=3.0, min_run_height=1.0, jump_height=2.0, max_gap_y=3.0)
GLOVE = pa.GloveArcParam(chord_len=2.0, search_arc_len=4.0, min_arc_angle=20.0)
RIGHT = pa.RightAngleParam(flat_arm_len=3.0, wall_arm_len=3.0, max_deviation=0.5)
OUTLIER = pa.OutlierParam(continuity_th=2.0, outlier_th=3.0)
SCAN_CALLS = [  # per-line detectors and filters with arguments that find something on the scan below
    ("corner_features", (CORNER,)), ("lv_features", (SLOPE, pa.VFeatureParam(z_tol=2.0, y_tol=3.0))),
    ("jump_features", (CORNER,)), ("local_peaks", (3.0,)), ("down_jumps", (2.0,)),
    ("flat_line_peaks", (3.0, 0.5, 1.0)), ("right_angle_features", (RIGHT,) * 4), ("glove_arcs", (GLOVE,)),
    ("smooth", (5,)), ("smooth_segments", (1.5, 2.0, 5)), ("remove_outliers", (OUTLIER,)),
    ("remove_outliers_by_distance", (OUTLIER,)), ("remove_outliers_in_place", (OUTLIER,)),
    ("rotate_points", (pa.matrix_from_euler(pa.EulerAngles(roll=3.0)), 25.0)),
]


def scan_fixture():
    rng = np.random.default_rng(7)
    y = np.arange(80) * 0.5
    lines = [np.column_stack([np.full(80, i), y, 5 + 10 * ((y > 12 + i) & (y < 28 - i)) + rng.normal(0, 0.2, 80)])
             for i in range(7)]
    return np.stack(lines)


def flat(result):
    return list(result) if isinstance(result, tuple) else [result]


@pytest.mark.parametrize("name,args", SCAN_CALLS, ids=[c[0] for c in SCAN_CALLS])
def test_whole_scan_matches_lines_for_every_thread_count(name, args):
    call, scan = getattr(pa, name), scan_fixture()
    single = flat(call(scan, *args, threads=1))
    assert any(len(r) for r in single)
    for threads in (2, 5):
        assert all(np.array_equal(a, b) for a, b in zip(single, flat(call(scan, *args, threads=threads))))
    per_line = [flat(call(line, *args, **({"line_idx": i} if name in DETECTORS else {}))) for i, line in
                enumerate(scan)]
    first = np.concatenate([r[0] for r in per_line]).reshape(single[0].shape)
    assert np.array_equal(first, single[0])


DETECTORS = {c[0] for c in SCAN_CALLS[:8]}


def test_semicircles_and_their_trees():
    y = np.arange(12.0)
    z = np.where((y >= 2) & (y <= 9), 5 + np.abs(y - 5.5), 0.0)  # one dip between two valid stretches
    labels = np.zeros((13, 1), np.int32)
    semis, pts = pa.upper_semicircles(profile(z), 6.0, SLOPE, labels)
    assert semis.dtype == pa.semicircle_dtype and pts["idx"].tolist()[:3] == [0, 1, 0]
    one = np.array([(0, 0, 2, 9, 5, 0.0, 5.0, 5.0, 7.0, 5.5)], pa.semicircle_dtype)
    trees, valid, short = [], [], []
    for line in range(3):
        one["line"], one["x"] = line, float(line)
        pa.grow_semicircle_trees(one.copy(), line, 3, GROW, trees, valid, short)
    assert not trees and len(valid) == 1 and valid[0].nodes["line"].tolist() == [0, 1, 2]

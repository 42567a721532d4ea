"""Point layouts, zero copies, in-place changes and record fields both ways."""
import numpy as np
import pytest
from helpers import CORNER, GROW, feature, profile, ramp_plateau

import profile_analysis as pa


def test_point_layout_is_the_c_record():
    # 32-byte records: int64 idx then x, y, z doubles, as SKesp3DPosition.
    assert pa.point_dtype.itemsize == 32
    assert [pa.point_dtype.fields[n][1] for n in ("idx", "x", "y", "z")] == [0, 8, 16, 24]
    assert pa.feature_dtype.names == ("type", "line", "idx", "x", "y", "z", "value")


@pytest.mark.parametrize("dtype", [np.float64, np.float32, np.int32])
def test_any_numeric_xyz_gives_the_structured_result(dtype):
    xyz = ramp_plateau()
    f_struct, e_struct = pa.corner_features(pa.as_points(xyz), CORNER, 3)
    f_xyz, e_xyz = pa.corner_features(xyz.astype(dtype), CORNER, 3)
    assert np.array_equal(f_struct, f_xyz) and np.array_equal(e_struct, e_xyz)
    # A strided view (every other column of a wider array) converts the same.
    wide = np.zeros((len(xyz), 6))
    wide[:, ::2] = xyz
    assert np.array_equal(pa.corner_features(wide[:, ::2], CORNER, 3)[0], f_struct)


def test_in_place_on_the_point_layout_and_copies_otherwise():
    pts = pa.as_points(profile([1, 3, 1, 1]), idx=np.full(4, 99))
    _, _, seen = pa.local_peaks(pts, 5.0)
    assert seen is pts and list(pts["idx"]) == [0, 1, 2, 3]  # idx rewritten in the caller's array
    frozen = pa.as_points(profile([1, 3, 1, 1]), idx=np.full(4, 99))
    frozen.flags.writeable = False
    _, _, copy = pa.local_peaks(frozen, 5.0)
    assert not np.shares_memory(copy, frozen) and list(copy["idx"]) == [0, 1, 2, 3]
    assert list(frozen["idx"]) == [99] * 4
    # (N, 3) input: the changed points come back as a converted copy.
    xyz = profile([5, 5, 5, 20, 5, 5, 5])
    out = pa.remove_outliers_in_place(xyz, pa.OutlierParam(continuity_th=2.0, outlier_th=2.0))
    assert out["z"][3] == 0.0 and xyz[3, 2] == 20.0


def test_scan_shapes_share_or_convert():
    grid = pa.as_points(np.stack([profile([1, 1, 5, 5], x=i) for i in range(3)]))
    rotated = pa.rotate_points(grid, np.eye(3), 4.0)  # z_cut 4 invalidates the 5s in place
    assert rotated is grid and np.shares_memory(rotated, grid) and grid["z"][1, 2] == 0.0
    ragged = [pa.as_points(profile([1, 1, 5])), profile([1, 5])]
    out = pa.rotate_points(ragged, np.eye(3), 4.0)
    assert out[0] is ragged[0] and out[1]["z"][1] == 0.0 and ragged[1][1, 2] == 5.0
    scan3 = np.stack([profile([1, 1, 5, 5], x=i) for i in range(3)])
    jumps, _ = pa.down_jumps(scan3, 2.0)
    assert list(jumps["line"]) == [0, 1, 2] and list(jumps["x"]) == [0, 1, 2]


def test_range_image_rows_become_profiles():
    scan = pa.scan_from_range_image(np.array([[0, 2], [3, 0]], np.uint16), 0.5, 0.1, 2.0)
    assert scan.dtype == pa.point_dtype and scan.tolist() == [[(0, 0.0, 0.0, 0.0), (1, 0.0, 0.1, 4.0)],
                                                              [(0, 0.5, 0.0, 6.0), (1, 0.5, 0.1, 0.0)]]


def test_tree_nodes_keep_every_feature_field():
    feats = [feature(i, 10.0 + 0.5 * i, 5.0, type_=3, value=0.25) for i in range(4)]
    for f in feats:
        f["idx"] = 7 + f["line"]
    (tree,) = pa.grow_trees(feats, GROW)
    assert np.array_equal(tree.nodes, np.concatenate(feats))
    assert (tree.state, tree.type, tree.first_line, tree.last_line) == (2, 3, 0, 3)
    tree.nodes = tree.nodes[:2]
    tree.x_range = (1.0, 2.0)
    assert len(tree.nodes) == 2 and tree.x_range == (1.0, 2.0)
    assert "FeatureTree(state=2, type=3" in repr(tree)


def test_nested_contour_records_round_trip():
    pairs = np.zeros(2, pa.contour_pair_dtype)
    for name in pa.contour_point_dtype.names:
        pairs["pt_1"][name] = [1, 2]
        pairs["pt_2"][name] = [3, 4]
    pairs["id"], pairs["key_0"], pairs["key_1"], pairs["type"], pairs["value"] = [5, 6], [7, 8], [9, 10], 11, 0.5
    keys = np.array([(8, 10, 0)], pa.int_pair_dtype)
    kept, f1, f2 = pa.pair_contour_points(pairs, keys, (0.0, 5.0), True)
    assert np.array_equal(kept, pairs[1:]) and (f1, f2) == (1, 1)
    # Another structured layout with the same field names is copied field by field.
    loose = np.zeros(1, [("idx", "i4"), ("data_1", "f8"), ("data_0", "i8")])
    loose[0] = (0, 10, 8)
    assert np.array_equal(pa.pair_contour_points(pairs, loose, (0.0, 5.0), True)[0], pairs[1:])


def test_contour_points_map_to_grid_values():
    c = np.zeros(2, pa.contour_point_dtype)
    c["line"], c["idx"], c["type"], c["contour"], c["flag"], c["z"] = [4, 5], [6, 7], 2, 1, [1, 0], [0.5, 0.75]
    lines = [pa.LineContours(line=4, points=c[:1]), pa.LineContours(line=5, points=c[1:])]
    pts, flag = pa.contour_points(lines, 1)
    assert pts.tolist() == [(4, 6, 2, 0.5, 0), (5, 7, 2, 0.75, 0)] and flag == 0
    kept, flag = pa.filter_contours(c, 1, 1.0, tag=9)
    assert list(kept["value2"]) == [9, 9] and flag == 0


def test_images_share_the_result_matrix():
    img = np.zeros((5, 5), np.uint8)
    img[1:3, 1:3] = 1
    img[0, 4] = 1  # border foreground keeps its value, never labelled
    labels, regions = pa.label_components(img)
    assert labels.dtype == np.int32 and type(labels.base).__name__ == "PyCapsule"
    assert labels[1:3, 1:3].tolist() == [[2, 2], [2, 2]] and labels[0, 4] == 1 and labels.sum() == 9
    assert regions.tolist() == [(1, 2, 1, 2, 4, 2)]
    src = np.full((5, 5), 1e6, np.float32)
    src[2, 2] = 0.0
    dist = pa.distance_transform(src)
    s = np.float32(1.41421354)
    assert dist[1:4, 1:4].tolist() == [[s, 1, s], [1, 0, 1], [s, 1, s]]
    assert dist.dtype == np.float32 and dist[0].sum() == 0 and src[0, 0] == 1e6

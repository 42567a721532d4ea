"""Bad input raises ValueError or TypeError naming the argument; never a crash."""
import numpy as np
import pytest
from helpers import CORNER, GROW, profile

import profile_analysis as pa

P = profile([1, 2, 3, 4])
SLOPE = pa.SlopeParam(slope_range_y=1.0, min_run_height=1.0, jump_height=1.0, max_gap_y=1.0)
FLAGS = np.zeros((4, 1, 4), np.int32)
SEED = np.zeros(1, pa.value2d_dtype)
BAG = pa.BagParam(length=1.0, width=1.0)

CASES = [  # (call, exception, message fragment); each row one argument check
    (lambda: pa.corner_features(np.zeros((5, 2)), CORNER), ValueError, "points: expected an (N, 3)"),
    (lambda: pa.corner_features(np.zeros((5, 3), complex), CORNER), TypeError, "points: expected an (N, 3) float"),
    (lambda: pa.corner_features(np.zeros(4, pa.point_dtype).reshape(2, 2, 1), CORNER), ValueError,
     "expected a 1-D array of point_dtype"),
    (lambda: pa.local_peaks(np.zeros((2, 3, 4)), 1.0), ValueError, "scan: expected an (L, P, 3)"),
    (lambda: pa.smooth([P, np.zeros((3, 2))], 3), ValueError, "scan[1]: expected an (N, 3)"),
    (lambda: pa.smooth(P, 3, threads=0), ValueError, "threads: expected 1 or more"),
    (lambda: pa.corner_features(P, None), TypeError, "incompatible function arguments"),
    (lambda: pa.CornerParam(max_gap_y=1.0), TypeError, "missing keyword arguments jump_z, arm_len"),
    (lambda: pa.OutlierParam(continuity_th=1, outlier_th=2, window=3), TypeError, "unexpected keyword argument 'window'"),
    (lambda: pa.OutlierParam(1.0, 2.0), TypeError, "keyword arguments only"),
    (lambda: pa.OutlierParam(continuity_th="a", outlier_th=2), TypeError, "continuity_th: expected a number"),
    (lambda: pa.LocalPeakParam(search_win_x=2.5, search_win_y=2), TypeError, "search_win_x: expected an integer"),
    (lambda: pa.image_peaks(np.zeros((4, 4), np.float32), pa.LocalPeakParam(search_win_x=1, search_win_y=2)),
     ValueError, "at least 2"),
    (lambda: pa.scan_minima(np.ones((3, 3, 3)), pa.LocalPeakParam(search_win_x=2, search_win_y=0)), ValueError,
     "at least 2"),
    (lambda: pa.image_peaks(np.zeros((4, 4)), pa.LocalPeakParam(search_win_x=2, search_win_y=2)), TypeError,
     "image: expected a float32 image"),
    (lambda: pa.upper_semicircles(P, 1.0, SLOPE, np.zeros((5, 1), np.float32)), TypeError, "int32 label image"),
    (lambda: pa.upper_semicircles(P, 1.0, SLOPE, np.zeros(5, np.int32)), ValueError, "labels: expected a 2-D"),
    (lambda: pa.label_components(np.zeros((3, 3), complex)), TypeError, "image: unsupported image dtype"),
    (lambda: pa.peak_xy_scan(np.ones((1, 4, 3)), FLAGS[..., :3], SEED, BAG), ValueError, "flags: expected a (rows"),
    (lambda: pa.peak_xy_scan(np.ones((1, 4, 3)), FLAGS.astype(np.uint16), SEED, BAG), TypeError, "flags: expected an int32"),
    (lambda: pa.rotate_points(P, np.eye(2)), ValueError, "rotation: expected a (3, 3)"),
    (lambda: pa.grow_trees(np.zeros(3), GROW), TypeError, "features: expected a 1-D structured array"),
    (lambda: pa.grow_trees(np.zeros(1, [("line", "i4")]), GROW), TypeError, "lacks the fields type, idx"),
    (lambda: pa.grow_trees(np.ones(1, pa.feature_dtype), GROW, line_count=1), ValueError, "line 1 lies outside"),
    (lambda: pa.grow_trees_by_line(0, True, [], GROW, [1]), TypeError, "trees: expected tree objects"),
    (lambda: pa.grow_ending_trees(np.array([(3, 0, 7, 0.0, 0)], pa.value2d_dtype), np.ones((3, 4, 3)), True, 7, GROW),
     ValueError, "endings: line index 3 beyond the scan's 3 lines"),
    (lambda: pa.FeatureTree(nodes=np.zeros(2)), TypeError, "nodes: expected a 1-D structured array"),
    (lambda: pa.Box3D(x_range=1.0), TypeError, "x_range: expected a (min, max) pair"),
    (lambda: pa.plane_calibration_in_regions(P[None], np.zeros((2, 5))), ValueError, "regions: expected"),
    (lambda: pa.as_points(np.zeros((3, 2))), ValueError, "xyz: expected an (N, 3)"),
    (lambda: pa.scan_from_range_image(np.zeros(4), 1, 1), ValueError, "img: expected a 2-D"),
]


@pytest.mark.parametrize("call,error,message", CASES, ids=[c[2] for c in CASES])
def test_bad_input_is_reported(call, error, message):
    with pytest.raises(error) as info:
        call()
    assert message in str(info.value)


def test_out_of_contract_values_follow_the_library():
    # NaN heights count as invalid points; an empty profile gives empty results.
    peaks, valleys, _ = pa.local_peaks(profile([1, np.nan, 3, 1]), 5.0)
    assert peaks["idx"].tolist() == [2] and len(valleys) == 0
    k, b = pa.fit_line(np.empty((0, 2)))
    assert np.isnan(k) and np.isnan(b)
    assert [len(r) for r in pa.corner_features(np.empty((0, 3)), CORNER)] == [0, 0]

"""Type stubs of profile_analysis (the compiled module _core plus two helpers)."""
from types import SimpleNamespace
from typing import List, Optional, Sequence, Tuple, Union

import numpy as np
import numpy.typing as npt

__version__: str

point_dtype: np.dtype  # idx i8, x, y, z f8 (SKesp3DPosition)
feature_dtype: np.dtype  # type, line i4, idx i8, x, y, z, value f8 (SHX_basicFeature1D)
value2d_dtype: np.dtype  # x, y, type i4, value f8, value2 i4 (SHX_2DValueI)
region_dtype: np.dtype  # left, right, top, bottom, pixel_count, label i4 (SHX_Region)
semicircle_dtype: np.dtype  # SHX_featureSemiCircle
contour_point_dtype: np.dtype  # SHX_contourPtInfo
contour_pair_dtype: np.dtype  # SHX_conotourPair (pt_1, pt_2 nested)
int_pair_dtype: np.dtype  # SHX_intPair
rgbd_dtype: np.dtype  # x, y, z f4, rgbd u4 (SKespXYZRGBDPoint)

Array = npt.NDArray
Points = Union[npt.ArrayLike, Array]  # (N, 3) numbers or 1-D point_dtype records
ScanLike = Union[Array, Sequence[Points]]  # (L, P, 3), (L, P) point_dtype, or a list of profiles
PointsOrScan = Union[Points, ScanLike]
Range = Tuple[float, float]

class EulerAngles:
    roll: float
    pitch: float
    yaw: float
    def __init__(self, *, roll: float = ..., pitch: float = ..., yaw: float = ...) -> None: ...

class Box3D:
    x_range: Range
    y_range: Range
    z_range: Range
    def __init__(self, *, x_range: Range = ..., y_range: Range = ..., z_range: Range = ...) -> None: ...

class PlaneCalibration:
    rotation: Array
    height: float
    inverse_rotation: Array
    def __init__(self, *, rotation: npt.ArrayLike = ..., height: float = ..., inverse_rotation: npt.ArrayLike = ...) -> None: ...

class TreeGrowParam:
    y_deviation_max: float
    z_deviation_max: float
    max_line_skip_num: int
    x_deviation_max: float
    min_l_type_tree_len: float
    min_v_type_tree_len: float
    def __init__(self, *, y_deviation_max: float, z_deviation_max: float, max_line_skip_num: int,
                 x_deviation_max: float, min_l_type_tree_len: float, min_v_type_tree_len: float) -> None: ...

class BagParam:
    length: float
    width: float
    def __init__(self, *, length: float, width: float) -> None: ...

class SlopeParam:
    slope_range_y: float
    min_run_height: float
    jump_height: float
    max_gap_y: float
    def __init__(self, *, slope_range_y: float, min_run_height: float, jump_height: float, max_gap_y: float) -> None: ...

class CornerParam:
    max_gap_y: float
    jump_z: float
    arm_len: float
    min_corner_angle: float
    arm_angle1: float
    arm_angle2: float
    def __init__(self, *, max_gap_y: float, jump_z: float, arm_len: float, min_corner_angle: float,
                 arm_angle1: float, arm_angle2: float) -> None: ...

class VFeatureParam:
    z_tol: float
    y_tol: float
    def __init__(self, *, z_tol: float, y_tol: float) -> None: ...

class RightAngleParam:
    flat_arm_len: float
    wall_arm_len: float
    max_deviation: float
    def __init__(self, *, flat_arm_len: float, wall_arm_len: float, max_deviation: float) -> None: ...

class GloveArcParam:
    chord_len: float
    search_arc_len: float
    min_arc_angle: float
    def __init__(self, *, chord_len: float, search_arc_len: float, min_arc_angle: float) -> None: ...

class OutlierParam:
    continuity_th: float
    outlier_th: float
    def __init__(self, *, continuity_th: float, outlier_th: float) -> None: ...

class LocalPeakParam:
    search_win_x: int
    search_win_y: int
    def __init__(self, *, search_win_x: int, search_win_y: int) -> None: ...

class FeatureTree:
    state: int
    type: int
    first_line: int
    last_line: int
    value: float
    x_range: Range
    y_range: Range
    nodes: Array  # feature_dtype
    def __init__(self, *, state: int = ..., type: int = ..., first_line: int = ..., last_line: int = ...,
                 value: float = ..., x_range: Range = ..., y_range: Range = ..., nodes: Array = ...) -> None: ...

class SemiCircleTree:
    state: int
    type: int
    first_line: int
    last_line: int
    center_x: float
    center_y: float
    center_z: float
    mean_width: float
    mean_top_z: float
    length: float
    user_data0: int
    user_data1: int
    user_data2: int
    nodes: Array  # semicircle_dtype
    def __init__(self, **fields: object) -> None: ...

class LineContours:
    line: int
    points: Array  # contour_point_dtype
    def __init__(self, *, line: int = ..., points: Array = ...) -> None: ...

# Helpers
def as_points(xyz: npt.ArrayLike, idx: Optional[npt.ArrayLike] = ...) -> Array: ...
def scan_from_range_image(img: npt.ArrayLike, pitch_x: float, pitch_y: float, z_scale: float = ...) -> Array: ...

# Scan geometry and calibration
def scan_bounds(scan: ScanLike) -> Box3D: ...
def fit_line(points: npt.ArrayLike) -> Tuple[float, float]: ...
def line_pixels(x0: int, y0: int, x1: int, y1: int) -> Array: ...
def rotate_points(points: PointsOrScan, rotation: npt.ArrayLike, z_cut: float = ..., *, threads: int = ...) -> Union[Array, List[Array]]: ...
def rotate_rgbd(points: npt.ArrayLike, rotation: npt.ArrayLike, z_cut: float = ...) -> Array: ...
def euler_from_matrix(matrix: npt.ArrayLike) -> EulerAngles: ...
def matrix_from_euler(angles: EulerAngles) -> Array: ...
def plane_calibration(scan: ScanLike) -> PlaneCalibration: ...
def refine_plane_calibration(scan: ScanLike, start: PlaneCalibration, inlier_dist: float, max_iter: int = ...) -> PlaneCalibration: ...
def plane_calibration_in_regions(scan: ScanLike, regions: Union[Sequence[Box3D], npt.ArrayLike]) -> PlaneCalibration: ...

# Preprocessing (profile or scan; the result has the input's shape)
def smooth(points: PointsOrScan, win_size: int, *, threads: int = ...) -> Union[Array, List[Array]]: ...
def smooth_segments(points: PointsOrScan, max_step_y: float, max_step_z: float, win_size: int, *, threads: int = ...) -> Union[Array, List[Array]]: ...
def remove_outliers(points: PointsOrScan, param: OutlierParam, *, threads: int = ...) -> Tuple[Union[Array, List[Array]], Array]: ...
def remove_outliers_by_distance(points: PointsOrScan, param: OutlierParam, *, threads: int = ...) -> Tuple[Union[Array, List[Array]], Array]: ...
def remove_outliers_in_place(points: PointsOrScan, param: OutlierParam, *, threads: int = ...) -> Union[Array, List[Array]]: ...
def cluster_points(points: Points, dist_th: float) -> List[Array]: ...

# Per-line detectors (profile or scan; records joined in line order)
def corner_features(points: PointsOrScan, param: CornerParam, line_idx: int = ..., *, threads: int = ...) -> Tuple[Array, Array]: ...
def lv_features(points: PointsOrScan, slope_param: SlopeParam, v_param: VFeatureParam, line_idx: int = ..., *, threads: int = ...) -> Tuple[Array, Array]: ...
def jump_features(points: PointsOrScan, param: CornerParam, line_idx: int = ..., *, threads: int = ...) -> Array: ...
def local_peaks(points: PointsOrScan, peak_range_y: float, line_idx: int = ..., *, threads: int = ...) -> Tuple[Array, Array, Union[Array, List[Array]]]: ...
def down_jumps(points: PointsOrScan, jump_threshold: float, line_idx: int = ..., *, threads: int = ...) -> Tuple[Array, Union[Array, List[Array]]]: ...
def flat_line_peaks(points: PointsOrScan, peak_range_y: float, min_peak_height: float, flat_tolerance: float, line_idx: int = ..., *, threads: int = ...) -> Array: ...
def right_angle_features(points: PointsOrScan, param1: RightAngleParam, param2: RightAngleParam, param3: RightAngleParam, param4: RightAngleParam, line_idx: int = ..., *, threads: int = ...) -> Array: ...
def glove_arcs(points: PointsOrScan, param: GloveArcParam, line_idx: int = ..., *, threads: int = ...) -> Array: ...
def upper_semicircles(points: PointsOrScan, max_half_width: float, slope_param: SlopeParam, labels: Array, line_idx: int = ..., *, threads: int = ...) -> Tuple[Array, Union[Array, List[Array]]]: ...

# Tracking
FeatureLines = Union[Array, Sequence[Array]]
def grow_trees(features: FeatureLines, param: TreeGrowParam, *, trees: Optional[List[FeatureTree]] = ..., line_count: int = ...) -> List[FeatureTree]: ...
def grow_peak_trees(features: FeatureLines, param: TreeGrowParam, *, trees: Optional[List[FeatureTree]] = ..., line_count: int = ...) -> List[FeatureTree]: ...
def grow_trees_by_line(line_idx: int, is_last_line: bool, features: Array, param: TreeGrowParam, trees: List[FeatureTree]) -> List[FeatureTree]: ...
def grow_ending_trees(endings: Array, scan: ScanLike, line_wise: bool, feature_type: int, param: TreeGrowParam, *, trees: Optional[List[FeatureTree]] = ...) -> List[FeatureTree]: ...
def grow_lv_trees(features: FeatureLines, endings: FeatureLines, bag_param: BagParam, param: TreeGrowParam, *, trees: Optional[List[FeatureTree]] = ..., line_count: int = ...) -> Tuple[List[FeatureTree], Array, Array, FeatureLines]: ...
def grow_semicircle_trees(semicircles: Array, line_idx: int, line_count: int, param: TreeGrowParam, trees: List[SemiCircleTree], valid_trees: List[SemiCircleTree], short_trees: List[SemiCircleTree]) -> Array: ...

# Image analysis
def label_components(image: Array, connectivity: int = ...) -> Tuple[Array, Array]: ...
def distance_transform(image: Array, dist_type: int = ...) -> Array: ...
def image_peaks(image: Array, param: LocalPeakParam) -> Array: ...
def scan_minima(scan: ScanLike, param: LocalPeakParam) -> Array: ...
def peak_xy_scan(scan: ScanLike, flags: Array, seed: Array, bag_param: BagParam, use_mark_bits: bool = ...) -> SimpleNamespace: ...
def contour_points(line_contours: Sequence[LineContours], contour_idx: int) -> Tuple[Array, int]: ...
def pair_contour_points(pairs: Array, keys: Array, range: Range, is_x: bool) -> Tuple[Array, int, int]: ...
def filter_contours(points: Array, max_contour_idx: int, dist_tolerance: float, tag: int = ...) -> Tuple[Array, int]: ...

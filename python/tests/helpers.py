"""Small builders shared by the binding tests."""
import numpy as np

import profile_analysis as pa


def profile(z, pitch=1.0, x=0.0):
    """(N, 3) profile: y = index * pitch, the given heights."""
    z = np.asarray(z, dtype=float)
    return np.column_stack([np.full(len(z), x), np.arange(len(z)) * pitch, z])


def ramp_plateau():
    """Rise at 45 degrees over points 0..10, plateau at 20 over 11..20."""
    return profile(list(range(10, 21)) + [20.0] * 10)


CORNER = pa.CornerParam(max_gap_y=3.0, jump_z=5.0, arm_len=2.5, min_corner_angle=20.0, arm_angle1=30.0,
                        arm_angle2=10.0)
GROW = pa.TreeGrowParam(y_deviation_max=2.0, z_deviation_max=2.0, max_line_skip_num=3, x_deviation_max=10.0,
                        min_l_type_tree_len=1.0, min_v_type_tree_len=1.0)


def feature(line, y, z, type_=1, value=1.0):
    f = np.zeros(1, pa.feature_dtype)
    f["type"], f["line"], f["idx"], f["x"], f["y"], f["z"], f["value"] = type_, line, int(y), line, y, z, value
    return f

#include "records.h"

namespace pa_py {

py::tuple range_tuple(const SKespRangeD& r) { return py::make_tuple(r.min, r.max); }

SKespRangeD to_range(py::handle v, const char* name) {
    try {
        auto t = py::cast<std::pair<double, double>>(v);
        return {t.first, t.second};
    } catch (py::cast_error&) {
        raise_type(std::string(name) + ": expected a (min, max) pair of numbers");
    }
}

namespace {

template <class T>
std::function<void(T&, py::handle)> set_range(SKespRangeD T::*member, const char* name) {
    return [member, name](T& t, py::handle v) { t.*member = to_range(v, name); };
}

}  // namespace

void bind_records(py::module_& m) {
    RecordClass<SHX_EulerAngles>(m, "EulerAngles", "z-y-x Euler angles in degrees (SHX_EulerAngles): R = Rz(yaw) Ry(pitch) Rx(roll).")
        .field("roll", &SHX_EulerAngles::roll, false)
        .field("pitch", &SHX_EulerAngles::pitch, false)
        .field("yaw", &SHX_EulerAngles::yaw, false)
        .done();

    using B = SKesp3DRangeD;
    RecordClass<B>(m, "Box3D", "Axis-aligned box (SKesp3DRangeD): one (min, max) range per axis; min > max is empty.")
        .property("x_range", [](const B& b) { return py::object(range_tuple(b.xRange)); }, set_range(&B::xRange, "x_range"))
        .property("y_range", [](const B& b) { return py::object(range_tuple(b.yRange)); }, set_range(&B::yRange, "y_range"))
        .property("z_range", [](const B& b) { return py::object(range_tuple(b.zRange)); }, set_range(&B::zRange, "z_range"))
        .done();

    using C = SHX_planeCalibPara;
    RecordClass<C>(m, "PlaneCalibration",
                   "Plane calibration result (SHX_planeCalibPara). height -1.0 marks a failed calibration.")
        .property("rotation", [](const C& c) { return py::object(matrix3(c.planeCalib)); },
                  [](C& c, py::handle v) { to_matrix9(v, "rotation", c.planeCalib); },
                  "levelling rotation (planeCalib), 3x3")
        .field("height", &C::planeHeight, false)
        .property("inverse_rotation", [](const C& c) { return py::object(matrix3(c.invRMatrix)); },
                  [](C& c, py::handle v) { to_matrix9(v, "inverse_rotation", c.invRMatrix); },
                  "inverse rotation (invRMatrix), 3x3")
        .done();

    RecordClass<SHX_treeGrowParam>(m, "TreeGrowParam", "How features are linked into trees (SHX_treeGrowParam).")
        .field("y_deviation_max", &SHX_treeGrowParam::yDeviation_max)
        .field("z_deviation_max", &SHX_treeGrowParam::zDeviation_max)
        .field("max_line_skip_num", &SHX_treeGrowParam::maxLineSkipNum)
        .field("x_deviation_max", &SHX_treeGrowParam::xDeviation_max)
        .field("min_l_type_tree_len", &SHX_treeGrowParam::minLTypeTreeLen)
        .field("min_v_type_tree_len", &SHX_treeGrowParam::minVTypeTreeLen)
        .done();

    RecordClass<SHX_bagParam>(m, "BagParam", "Size of the object looked for (SHX_bagParam: bagL, bagW).")
        .field("length", &SHX_bagParam::bagL)
        .field("width", &SHX_bagParam::bagW)
        .done();

    RecordClass<SHX_slopeParam>(m, "SlopeParam", "Slope and gap limits of a profile (SHX_slopeParam).")
        .field("slope_range_y", &SHX_slopeParam::slopeRangeY)
        .field("min_run_height", &SHX_slopeParam::minRunHeight)
        .field("jump_height", &SHX_slopeParam::jumpHeight)
        .field("max_gap_y", &SHX_slopeParam::maxGapY)
        .done();

    RecordClass<SHX_cornerParam>(m, "CornerParam", "Corner and jump detector parameters (SHX_cornerParam); angles in degrees.")
        .field("max_gap_y", &SHX_cornerParam::maxGapY)
        .field("jump_z", &SHX_cornerParam::jumpZ)
        .field("arm_len", &SHX_cornerParam::armLen)
        .field("min_corner_angle", &SHX_cornerParam::minCornerAngle)
        .field("arm_angle1", &SHX_cornerParam::armAngle1)
        .field("arm_angle2", &SHX_cornerParam::armAngle2)
        .done();

    RecordClass<SHX_VFeatureParam>(m, "VFeatureParam", "V-shape tolerances of the L/V detector (SHX_VFeatureParam).")
        .field("z_tol", &SHX_VFeatureParam::zTol)
        .field("y_tol", &SHX_VFeatureParam::yTol)
        .done();

    RecordClass<SHX_lineRightAngleParam>(m, "RightAngleParam", "One right-angle corner kind (SHX_lineRightAngleParam).")
        .field("flat_arm_len", &SHX_lineRightAngleParam::flatArmLen)
        .field("wall_arm_len", &SHX_lineRightAngleParam::wallArmLen)
        .field("max_deviation", &SHX_lineRightAngleParam::maxDeviation)
        .done();

    RecordClass<SHX_gloveArcParam>(m, "GloveArcParam", "Glove-arc detector parameters (SHX_gloveArcParam); angle in degrees.")
        .field("chord_len", &SHX_gloveArcParam::chordLen)
        .field("search_arc_len", &SHX_gloveArcParam::searchArcLen)
        .field("min_arc_angle", &SHX_gloveArcParam::minArcAngle)
        .done();

    RecordClass<SHX_outlierFilterParam>(m, "OutlierParam", "Outlier removal parameters (SHX_outlierFilterParam).")
        .field("continuity_th", &SHX_outlierFilterParam::continuityTh)
        .field("outlier_th", &SHX_outlierFilterParam::outlierTh)
        .done();

    RecordClass<SHX_localPkParam>(m, "LocalPeakParam", "Window sizes of the windowed peak search (SHX_localPkParam), both >= 2.")
        .field("search_win_x", &SHX_localPkParam::searchWin_x)
        .field("search_win_y", &SHX_localPkParam::searchWin_y)
        .done();

    using T = SHX_featureTree;
    RecordClass<T>(m, "FeatureTree", "One feature followed across scan lines (SHX_featureTree); nodes: feature_dtype records.")
        .field("state", &T::treeState, false)
        .field("type", &T::treeType, false)
        .field("first_line", &T::sLineIdx, false)
        .field("last_line", &T::eLineIdx, false)
        .field("value", &T::treeValue, false)
        .property("x_range", [](const T& t) { return py::object(range_tuple(t.xRange)); }, set_range(&T::xRange, "x_range"))
        .property("y_range", [](const T& t) { return py::object(range_tuple(t.yRange)); }, set_range(&T::yRange, "y_range"))
        .property("nodes", [](const T& t) { return py::object(to_array(t.treeNodes, dtypes().feature)); },
                  [](T& t, py::handle v) { t.treeNodes = to_records<SHX_basicFeature1D>(v, dtypes().feature, "nodes"); })
        .done();

    using S = SHX_semiCircleFeatureTree;
    RecordClass<S>(m, "SemiCircleTree", "One tracked semicircle (SHX_semiCircleFeatureTree); nodes: semicircle_dtype records.")
        .field("state", &S::treeState, false)
        .field("type", &S::treeType, false)
        .field("first_line", &S::sLineIdx, false)
        .field("last_line", &S::eLineIdx, false)
        .field("center_x", &S::centerX, false)
        .field("center_y", &S::centerY, false)
        .field("center_z", &S::centerZ, false)
        .field("mean_width", &S::meanWidth, false)
        .field("mean_top_z", &S::meanTopZ, false)
        .field("length", &S::treeLength, false)
        .field("user_data0", &S::nUserData0, false)
        .field("user_data1", &S::nUserData1, false)
        .field("user_data2", &S::nUserData2, false)
        .property("nodes", [](const S& t) { return py::object(to_array(t.treeNodes, dtypes().semicircle)); },
                  [](S& t, py::handle v) { t.treeNodes = to_records<SHX_featureSemiCircle>(v, dtypes().semicircle, "nodes"); })
        .done();

    using L = SHX_lineConotours;
    RecordClass<L>(m, "LineContours", "Contour points of one scan line or point row (SHX_lineConotours).")
        .field("line", &L::lineIdx, false)
        .property("points", [](const L& l) { return py::object(to_array(l.contourPts, dtypes().contour_point)); },
                  [](L& l, py::handle v) { l.contourPts = to_records<SHX_contourPtInfo>(v, dtypes().contour_point, "points"); })
        .done();
}

}  // namespace pa_py

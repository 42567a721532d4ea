// Feature tracking: trees grown across scan lines.
#include "bindings.h"

namespace pa_py {

namespace {

template <class Tree>
std::vector<Tree> trees_in(py::handle trees, const char* name) {
    std::vector<Tree> v;
    if (trees.is_none()) return v;
    if (!py::isinstance<py::list>(trees)) raise_type(std::string(name) + ": expected a list of trees or None");
    for (auto t : trees) {
        try {
            v.push_back(py::cast<Tree>(t));
        } catch (py::cast_error&) {
            raise_type(std::string(name) + ": expected tree objects, got " + std::string(py::str(t.get_type())));
        }
    }
    return v;
}

// The caller's list is replaced in place (the C routines change their trees
// vector in place); without one a new list is returned.
template <class Tree>
py::list trees_out(py::handle given, std::vector<Tree>& v) {
    py::list out = given.is_none() ? py::list() : py::reinterpret_borrow<py::list>(given);
    out.attr("clear")();
    for (auto& t : v) out.append(py::cast(std::move(t)));
    return out;
}

std::vector<SHX_lineFeature> line_records(std::vector<std::vector<SHX_basicFeature1D>>&& lines) {
    std::vector<SHX_lineFeature> out(lines.size());
    for (size_t i = 0; i < lines.size(); ++i) {
        out[i].lineIdx = static_cast<int32_t>(i);
        out[i].features = std::move(lines[i]);
    }
    return out;
}

// Endings whose types hx_LVFeatureGrowing changes: kept as writeable arrays
// (the caller's own when they allow it) with the position of every ending.
struct TrackedEndings {
    py::object result;                     // what the caller gets back
    std::vector<SHX_basicFeature1D*> where;  // per ending, in line order
    std::vector<std::vector<SHX_basicFeature1D>> lines;
};

py::array writeable_records(py::handle obj, const char* name) {
    py::array a = as_record_array(obj, dtypes().feature, name);
    return a.is(obj) && a.writeable() ? a : py::array(a.attr("copy")());
}

TrackedEndings track_endings(py::handle endings, int lineCount) {
    TrackedEndings t;
    std::vector<std::pair<SHX_basicFeature1D*, size_t>> records;  // record, line
    auto add = [&](py::array a, int fixedLine) {
        auto* r = static_cast<SHX_basicFeature1D*>(a.mutable_data());
        for (py::ssize_t k = 0; k < a.shape(0); ++k)
            records.push_back({r + k, static_cast<size_t>(fixedLine >= 0 ? fixedLine : r[k].lineIdx)});
    };
    if (py::isinstance<py::list>(endings) || py::isinstance<py::tuple>(endings)) {
        py::list out;
        int i = 0;
        for (auto e : endings) {
            const std::string name = "endings[" + std::to_string(i) + "]";
            py::array a = writeable_records(e, name.c_str());
            add(a, i++);
            out.append(a);
        }
        t.result = out;
        t.lines.resize(static_cast<size_t>(std::max(i, lineCount)));
    } else {
        py::array a = writeable_records(endings, "endings");
        add(a, -1);
        t.result = a;
        int n = lineCount;
        for (const auto& r : records) {
            if (r.first->lineIdx < 0) raise_value("endings: a negative line index");
            n = std::max(n, r.first->lineIdx + 1);
        }
        t.lines.resize(static_cast<size_t>(std::max(n, 0)));
    }
    for (const auto& r : records) {
        if (r.second >= t.lines.size()) raise_value("endings: a line index beyond line_count");
        t.lines[r.second].push_back(*r.first);
    }
    // The positions, in the order the line records hold them.
    std::vector<size_t> fill(t.lines.size(), 0);
    std::vector<size_t> start(t.lines.size() + 1, 0);
    for (size_t i = 0; i < t.lines.size(); ++i) start[i + 1] = start[i] + t.lines[i].size();
    t.where.resize(records.size());
    for (const auto& r : records) t.where[start[r.second] + fill[r.second]++] = r.first;
    return t;
}

constexpr const char* kFeaturesArg =
    "features: one feature_dtype array per line (list; line i is record i), or one array with the `line` "
    "field, split by it into line_count lines (default: the largest line + 1). ";

}  // namespace

void bind_tracking(py::module_& m) {
    m.def(
        "grow_trees",
        [](py::handle features, const SHX_treeGrowParam& param, py::handle trees, int line_count) {
            std::vector<SHX_featureTree> t = trees_in<SHX_featureTree>(trees, "trees");
            std::vector<SHX_lineFeature> lines = line_records(to_feature_lines(features, "features", line_count));
            {
                py::gil_scoped_release release;
                hx_getFeatureGrowingTrees(lines, t, param);
            }
            return trees_out(trees, t);
        },
        py::arg("features"), py::arg("param"), py::kw_only(), py::arg("trees") = py::none(),
        py::arg("line_count") = -1,
        (std::string("Links the features of successive lines into trees (hx_getFeatureGrowingTrees).\n\n") +
         kFeaturesArg +
         "trees: FeatureTree list to continue (changed in place and returned) or None. Returns the kept trees; "
         "empty features leave the trees untouched.")
            .c_str());

    m.def(
        "grow_peak_trees",
        [](py::handle features, const SHX_treeGrowParam& param, py::handle trees, int line_count) {
            std::vector<SHX_featureTree> t = trees_in<SHX_featureTree>(trees, "trees");
            auto lines = to_feature_lines(features, "features", line_count);
            {
                py::gil_scoped_release release;
                hx_peakFeatureGrowing(lines, t, param);
            }
            return trees_out(trees, t);
        },
        py::arg("features"), py::arg("param"), py::kw_only(), py::arg("trees") = py::none(),
        py::arg("line_count") = -1,
        (std::string("grow_trees over one feature vector per line, then every tree's x_range / y_range set from "
                     "its nodes (hx_peakFeatureGrowing).\n\n") +
         kFeaturesArg + "trees as for grow_trees.")
            .c_str());

    m.def(
        "grow_trees_by_line",
        [](int32_t line_idx, bool is_last_line, py::handle features, const SHX_treeGrowParam& param, py::list trees) {
            std::vector<SHX_featureTree> t = trees_in<SHX_featureTree>(trees, "trees");
            auto f = to_records<SHX_basicFeature1D>(features, dtypes().feature, "features");
            {
                ReleaseGil release(t.size() + f.size());
                hx_lineFeaturesGrowing(line_idx, is_last_line, f, t, param);
            }
            return trees_out(trees, t);
        },
        py::arg("line_idx"), py::arg("is_last_line"), py::arg("features"), py::arg("param"), py::arg("trees"),
        "Grows trees by the features of one line; call once per line in scan order with the same `trees` list, "
        "which is changed in place and returned (hx_lineFeaturesGrowing). is_last_line closes every tree.");

    m.def(
        "grow_ending_trees",
        [](py::handle endings, py::handle scan, bool line_wise, int32_t feature_type, const SHX_treeGrowParam& param,
           py::handle trees) {
            std::vector<SHX_featureTree> t = trees_in<SHX_featureTree>(trees, "trees");
            auto e = to_records<SHX_2DValueI>(endings, dtypes().value2d, "endings");
            Scan s = to_scan(scan, "scan", false);
            // The C routine does not check line indices against the scan.
            for (const auto& p : e)
                if ((line_wise ? p.x : p.y) >= static_cast<int32_t>(s.lines.size()))
                    raise_value("endings: line index " + std::to_string(line_wise ? p.x : p.y) + " beyond the scan's " +
                                std::to_string(s.lines.size()) + " lines");
            {
                py::gil_scoped_release release;
                hx_getEndingGrowingTrees(e, s.lines.empty() ? nullptr : s.lines.data(), line_wise, feature_type, t,
                                         param);
            }
            return trees_out(trees, t);
        },
        py::arg("endings"), py::arg("scan"), py::arg("line_wise"), py::arg("feature_type"), py::arg("param"),
        py::kw_only(), py::arg("trees") = py::none(),
        "Grows trees over grid positions (value2d_dtype records sorted by x) into a scan "
        "(hx_getEndingGrowingTrees). line_wise: position (x, y) is point y of line x; else point x of line y. "
        "trees as for grow_trees.");

    m.def(
        "grow_lv_trees",
        [](py::handle features, py::handle endings, const SHX_bagParam& bag, const SHX_treeGrowParam& param,
           py::handle trees, int line_count) {
            std::vector<SHX_featureTree> t = trees_in<SHX_featureTree>(trees, "trees");
            auto featureLines = to_feature_lines(features, "features", line_count);
            TrackedEndings tracked = track_endings(endings, static_cast<int>(featureLines.size()));
            featureLines.resize(std::max(featureLines.size(), tracked.lines.size()));
            std::vector<SHX_lineFeature> lines = line_records(std::move(featureLines));
            for (size_t i = 0; i < tracked.lines.size(); ++i) lines[i].endings = std::move(tracked.lines[i]);
            std::vector<SHX_2DValueI> starts, ends;
            {
                py::gil_scoped_release release;
                hx_LVFeatureGrowing(lines, t, bag, param, starts, ends);
                size_t k = 0;
                for (const auto& l : lines)
                    for (const auto& e : l.endings) tracked.where[k++]->featureType = e.featureType;
            }
            return py::make_tuple(trees_out(trees, t), to_array(starts, dtypes().value2d),
                                  to_array(ends, dtypes().value2d), tracked.result);
        },
        py::arg("features"), py::arg("endings"), py::arg("bag_param"), py::arg("param"), py::kw_only(),
        py::arg("trees") = py::none(), py::arg("line_count") = -1,
        (std::string("Grows L/V features into trees, lengthens them by segment ends and cleans them with the "
                     "object size (hx_LVFeatureGrowing).\n\n") +
         kFeaturesArg +
         "endings: the segment ends in the same form. Returns (trees, starts, ends, endings): the trees, the free "
         "segment starts and ends (value2d_dtype), and the endings, whose types the C routine changes in place for "
         "the ends taken by trees: a writeable feature_dtype array is changed in place, other input is converted "
         "and the changed copy returned.")
            .c_str());

    m.def(
        "grow_semicircle_trees",
        [](py::handle semicircles, int32_t line_idx, int32_t line_count, const SHX_treeGrowParam& param,
           py::list trees, py::list valid_trees, py::list short_trees) {
            py::array a = as_record_array(semicircles, dtypes().semicircle, "semicircles");
            if (!a.is(semicircles) || !a.writeable()) a = a.attr("copy")();
            std::vector<SHX_featureSemiCircle> f(static_cast<size_t>(a.shape(0)));
            if (!f.empty()) std::memcpy(f.data(), a.data(), f.size() * sizeof(SHX_featureSemiCircle));
            auto t = trees_in<SHX_semiCircleFeatureTree>(trees, "trees");
            auto v = trees_in<SHX_semiCircleFeatureTree>(valid_trees, "valid_trees");
            auto s = trees_in<SHX_semiCircleFeatureTree>(short_trees, "short_trees");
            {
                ReleaseGil release(t.size() + f.size());
                hx_getFeatureGrowingTrees_semiCircle(f, line_idx, line_count, t, v, s, param);
            }
            if (!f.empty()) std::memcpy(a.mutable_data(), f.data(), f.size() * sizeof(SHX_featureSemiCircle));
            trees_out(trees, t);
            trees_out(valid_trees, v);
            trees_out(short_trees, s);
            return a;
        },
        py::arg("semicircles"), py::arg("line_idx"), py::arg("line_count"), py::arg("param"), py::arg("trees"),
        py::arg("valid_trees"), py::arg("short_trees"),
        "Tracks one line's semicircles into trees; call once per line in scan order "
        "(hx_getFeatureGrowingTrees_semiCircle). trees, valid_trees and short_trees are SemiCircleTree lists "
        "changed in place. Returns the semicircles with the used-up ones set to type 5: a writeable "
        "semicircle_dtype array is changed in place, other input is converted and the changed copy returned.");
}

}  // namespace pa_py

// The two shapes of a call: one profile, or a whole scan looped in C++ with
// the GIL released and the lines spread over `threads` workers.
#ifndef PA_PYTHON_SCAN_CALLS_H
#define PA_PYTHON_SCAN_CALLS_H

#include <array>
#include <optional>

#include "convert.h"
#include "line_pool.h"

namespace pa_py {

/// Releases the GIL for calls on more than a few points.
class ReleaseGil {
public:
    explicit ReleaseGil(size_t points) {
        if (points > kReleaseGilAbove) release_.emplace();
    }

private:
    std::optional<py::gil_scoped_release> release_;
};

inline int checked_threads(int threads) {
    if (threads < 1) raise_value("threads: expected 1 or more, got " + std::to_string(threads));
    return threads;
}

/// Result of a detector: K record arrays and the points the detector saw
/// (the caller's array when it was used in place, else the converted copy).
template <size_t K>
struct Detected {
    std::array<py::object, K> records;  // objects: an empty py::array would cost a numpy call
    py::object points;
};

/// Runs a per-line detector f(points, count, lineIdx, outputs) on a profile or
/// on every line of a scan (line i gets lineIdx + i); a scan's records are
/// joined in line order into one array per output.
template <class Rec, size_t K, class PerLine>
Detected<K> detect(py::handle obj, bool writes, int32_t lineIdx, int threads, const py::dtype& dt, PerLine f) {
    checked_threads(threads);
    Detected<K> result;
    using Out = std::array<std::vector<Rec>, K>;
    if (!is_scan(obj)) {
        Profile p = to_profile(obj, "points", writes);
        Out out;
        {
            ReleaseGil release(static_cast<size_t>(p.count));
            f(p.data, p.count, lineIdx, out);
        }
        for (size_t k = 0; k < K; ++k) result.records[k] = to_array(out[k], dt);
        result.points = p.array;
        return result;
    }
    Scan s = to_scan(obj, "scan", writes);
    std::vector<Out> perLine(s.lines.size());
    {
        py::gil_scoped_release release;
        for_each_line(s.lines.size(), threads, [&](size_t i) {
            const SKesp3DLaserLine& line = s.lines[i];
            f(line.p3DPosition, line.nPositionCnt, lineIdx + static_cast<int32_t>(i), perLine[i]);
        });
    }
    for (size_t k = 0; k < K; ++k) {
        size_t total = 0;
        for (const Out& o : perLine) total += o[k].size();
        py::array a = new_array(dt, static_cast<py::ssize_t>(total));
        auto* dst = static_cast<Rec*>(a.mutable_data());
        for (const Out& o : perLine) {
            if (!o[k].empty()) std::memcpy(dst, o[k].data(), o[k].size() * sizeof(Rec));
            dst += o[k].size();
        }
        result.records[k] = a;
    }
    result.points = s.result;
    return result;
}

/// Runs f(in, count, out, lineNo) on a profile or every line of a scan,
/// where out has room for count points; returns points of the input's shape.
/// prepare(lineCount) runs first, with the GIL held (1 for a profile).
template <class PerLine, class Prepare>
py::object map_points(py::handle obj, int threads, PerLine f, Prepare prepare) {
    checked_threads(threads);
    if (!is_scan(obj)) {
        prepare(size_t(1));
        Profile p = to_profile(obj, "points", false);
        py::array out = new_points(p.count);
        auto* dst = static_cast<SKesp3DPosition*>(out.mutable_data());
        {
            ReleaseGil release(static_cast<size_t>(p.count));
            f(p.data, p.count, dst, size_t(0));
        }
        return std::move(out);
    }
    Scan s = to_scan(obj, "scan", false);
    prepare(s.lines.size());
    std::vector<SKesp3DPosition*> dst(s.lines.size());
    py::object result;
    if (s.width || s.lines.empty()) {
        py::array grid = new_points(static_cast<py::ssize_t>(s.lines.size()), s.width);
        auto* base = static_cast<SKesp3DPosition*>(grid.mutable_data());
        for (size_t i = 0; i < s.lines.size(); ++i) dst[i] = base + i * static_cast<size_t>(s.width);
        result = grid;
    } else {
        py::list lines;
        for (size_t i = 0; i < s.lines.size(); ++i) {
            py::array a = new_points(s.lines[i].nPositionCnt);
            dst[i] = static_cast<SKesp3DPosition*>(a.mutable_data());
            lines.append(a);
        }
        result = lines;
    }
    {
        py::gil_scoped_release release;
        for_each_line(s.lines.size(), threads, [&](size_t i) {
            f(s.lines[i].p3DPosition, s.lines[i].nPositionCnt, dst[i], i);
        });
    }
    return result;
}

template <class PerLine>
py::object map_points(py::handle obj, int threads, PerLine f) {
    return map_points(obj, threads, f, [](size_t) {});
}

/// Runs f(points, count, lineNo) on the points in place: the caller's array
/// when it has the point layout and is writeable, else a converted copy,
/// which is returned either way.
template <class PerLine>
py::object change_points(py::handle obj, int threads, PerLine f) {
    checked_threads(threads);
    if (!is_scan(obj)) {
        Profile p = to_profile(obj, "points", true);
        {
            ReleaseGil release(static_cast<size_t>(p.count));
            f(p.data, p.count, size_t(0));
        }
        return p.array;
    }
    Scan s = to_scan(obj, "scan", true);
    {
        py::gil_scoped_release release;
        for_each_line(s.lines.size(), threads,
                      [&](size_t i) { f(s.lines[i].p3DPosition, s.lines[i].nPositionCnt, i); });
    }
    return s.result;
}

}  // namespace pa_py

#endif

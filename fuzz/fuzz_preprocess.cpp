// Profile preprocessing: smoothing, outlier removal and point clustering.
#include <stdexcept>

#include "fuzz_util.h"

using fuzz::sameBits;
using fuzz::samePoint;
using Line = std::vector<SKesp3DPosition>;

namespace {

// Smoothing changes only the z of valid points.
void checkOnlyValidZChanged(const Line& in, const SKesp3DPosition* out) {
    for (size_t i = 0; i < in.size(); ++i) {
        FUZZ_CHECK(out[i].nPointIdx == in[i].nPointIdx && sameBits(out[i].x, in[i].x) && sameBits(out[i].y, in[i].y));
        if (!(in[i].z > 0.0001)) FUZZ_CHECK(sameBits(out[i].z, in[i].z));
    }
}

// Outlier removal: the output is the input with some z set to 0.0, exactly at
// the removed indices, which increase.
void checkRemoved(const Line& in, const Line& out, const std::vector<int32_t>& removed) {
    FUZZ_CHECK(out.size() == in.size());
    size_t r = 0;
    for (size_t i = 0; i < in.size(); ++i) {
        const bool gone = r < removed.size() && removed[r] == static_cast<int32_t>(i);
        r += gone;
        SKesp3DPosition p = in[i];
        if (gone) p.z = 0.0;
        FUZZ_CHECK(samePoint(out[i], p));
    }
    FUZZ_CHECK(r == removed.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input in(data, size);
    const int routine = in.integer(0, 3);
    Line line = in.profile(in.integer(0, 3) == 0 ? 3000 : 64);
    const int32_t n = fuzz::count(line);
    switch (routine) {
        case 0: {
            const int32_t win = in.hostile() ? in.wide(-40, 40) : in.integer(2, 40);
            Line out(in.integer(0, 3), SKesp3DPosition{});
            hx_lineDataSmoothing(line, win, out);
            FUZZ_CHECK(out.size() == line.size());
            checkOnlyValidZChanged(line, out.data());
            if (win <= -2)
                for (size_t i = 0; i < line.size(); ++i) FUZZ_CHECK(!(line[i].z > 0.0001) || std::isnan(out[i].z));
            Line same = line;  // in place gives the same bits
            hx_lineDataSmoothing(same, win, same);
            for (size_t i = 0; i < line.size(); ++i) FUZZ_CHECK(samePoint(same[i], out[i]));
            break;
        }
        case 1: {
            const int32_t win = in.hostile() ? in.wide(-40, 40) : in.integer(2, 40);
            Line out(in.integer(0, 3), SKesp3DPosition{});
            const size_t before = out.size();
            hx_lineSegSmoothing(line, in.real(0.0, 10.0), in.real(0.0, 20.0), win, out);
            FUZZ_CHECK(out.size() == before + line.size());
            checkOnlyValidZChanged(line, out.data() + before);
            break;
        }
        case 2: {
            const SHX_outlierFilterParam param{in.real(0.0, 20.0), in.real(0.0, 12.0)};
            const int32_t passed = in.hostile() && in.flag() ? in.count(n, n) : n;
            const Line used(line.begin(), line.begin() + (passed > 0 ? passed : 0));
            const bool ptDist = in.flag();
            Line out;
            std::vector<int32_t> removed;
            try {
                if (ptDist) hx_lineDataRemoveOutlier_ptDistMethod(line.data(), passed, param, out, removed);
                else hx_lineDataRemoveOutlier(line.data(), passed, param, out, removed);
            } catch (const std::length_error&) {
                FUZZ_CHECK(passed < 0);  // the documented result of a negative count
                break;
            }
            FUZZ_CHECK(passed >= 0);
            checkRemoved(used, out, removed);
            if (!ptDist) {
                hx_lineDataRemoveOutlier_changeOriginData(line.data(), passed, param);
                for (size_t i = 0; i < used.size(); ++i) FUZZ_CHECK(samePoint(line[i], out[i]));
            }
            break;
        }
        default: {
            const double distTh = in.real(0.0, 10.0);
            std::vector<std::vector<SKesp3DPosition>> clusters(in.integer(0, 2));
            const size_t before = clusters.size();
            size_t kept = 0;
            for (size_t i = 0; i < line.size(); ++i) kept += i == 0 || static_cast<int32_t>(line[i].nPointIdx) >= 0;
            hx_pointClustering(line, distTh, clusters);
            FUZZ_CHECK(line.empty());
            size_t got = 0;
            for (size_t c = before; c < clusters.size(); ++c) {
                FUZZ_CHECK(!clusters[c].empty());
                got += clusters[c].size();
            }
            FUZZ_CHECK(got == kept);
            if (!(distTh > 0.0)) FUZZ_CHECK(clusters.size() - before == kept);
            break;
        }
    }
    return 0;
}

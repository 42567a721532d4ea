#include "scan_io.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include <opencv2/imgcodecs.hpp>

namespace {

std::string lowerExtension(const std::string& path) {
    const size_t dot = path.find_last_of('.');
    std::string ext = dot == std::string::npos ? "" : path.substr(dot + 1);
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
    return ext;
}

// Parses "line,x,y,z"; returns false for anything else.
bool parseRow(const std::string& row, long& lineNo, double v[3]) {
    const char* p = row.c_str();
    char* end = nullptr;
    lineNo = std::strtol(p, &end, 10);
    if (end == p) return false;
    p = end;
    for (int k = 0; k < 3; ++k) {
        while (*p == ' ' || *p == '\t') ++p;
        if (*p != ',' && *p != ';') return false;
        ++p;
        v[k] = std::strtod(p, &end);
        if (end == p || !std::isfinite(v[k])) return false;
        p = end;
    }
    while (*p == ' ' || *p == '\t' || *p == '\r') ++p;
    return *p == '\0';
}

bool loadCsv(const std::string& path, Scan& scan, std::string& error) {
    std::ifstream in(path);
    if (!in) {
        error = "cannot open " + path;
        return false;
    }
    std::string row;
    long rowNo = 0, lastLine = -1;
    while (std::getline(in, row)) {
        ++rowNo;
        if (row.empty() || row == "\r") continue;
        long lineNo = 0;
        double v[3];
        if (!parseRow(row, lineNo, v)) {
            if (rowNo == 1 && std::isalpha(static_cast<unsigned char>(row[0]))) continue;  // header row
            error = path + ": row " + std::to_string(rowNo) + " is not 'line,x,y,z'";
            return false;
        }
        if (lineNo < 0 || lineNo < lastLine || lineNo > 10000000) {
            error = path + ": row " + std::to_string(rowNo) + ": line numbers must be non-negative and in order";
            return false;
        }
        if (lineNo != lastLine) {
            scan.resize(static_cast<size_t>(lineNo) + 1);
            lastLine = lineNo;
        }
        auto& line = scan[static_cast<size_t>(lineNo)];
        line.push_back(SKesp3DPosition{static_cast<int64_t>(line.size()), v[0], v[1], v[2]});
    }
    return true;
}

bool loadRangeImage(const std::string& path, const RangeImageUnits& u, Scan& scan, std::string& error) {
    std::ifstream probe(path);
    if (!probe) {
        error = "cannot open " + path;
        return false;
    }
    const cv::Mat img = cv::imread(path, cv::IMREAD_ANYDEPTH | cv::IMREAD_GRAYSCALE);
    if (img.empty()) {
        error = path + ": not a readable image";
        return false;
    }
    if (img.depth() != CV_16U && img.depth() != CV_32F) {
        error = path + ": a range image must be 16-bit or 32-bit float, single channel";
        return false;
    }
    cv::Mat values;
    img.convertTo(values, CV_64F);
    scan.assign(static_cast<size_t>(values.rows), {});
    for (int r = 0; r < values.rows; ++r) {
        const double* row = values.ptr<double>(r);
        auto& line = scan[static_cast<size_t>(r)];
        line.resize(static_cast<size_t>(values.cols));
        for (int c = 0; c < values.cols; ++c) {
            const double z = std::isfinite(row[c]) ? row[c] * u.zScale : 0.0;
            line[static_cast<size_t>(c)] = SKesp3DPosition{c, r * u.pitchX, c * u.pitchY, z};
        }
    }
    return true;
}

}  // namespace

bool loadScan(const std::string& path, const RangeImageUnits& units, Scan& scan, std::string& error) {
    scan.clear();
    const std::string ext = lowerExtension(path);
    const bool ok = (ext == "csv" || ext == "txt") ? loadCsv(path, scan, error) : loadRangeImage(path, units, scan, error);
    if (!ok) return false;
    for (const auto& line : scan)
        for (const auto& p : line)
            if (p.z >= 0.0001) return true;
    error = path + ": the scan has no valid point (every z is below 0.0001)";
    return false;
}

// Times over a number of something, on two logarithmic axes, as an SVG file that
// needs nothing else.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace vvl::bench
{

struct Curve {
    std::string name;
    std::vector<std::pair<double, double>> points; // ascending in x, y in nanoseconds; all above 0
};

struct Chart {
    std::string title;
    std::string x_title;       // with its unit
    std::string y_title;       // its unit is at the ticks
    std::vector<Curve> curves; // at most eight, each with a point or more
};

// The axes end at powers of ten. Texts are not escaped: no '<' and no '&'.
std::string to_svg(const Chart &chart);

// Writes it; false, with a line on standard error, where that fails.
bool write_svg(const Chart &chart, const std::string &path);

} // namespace vvl::bench

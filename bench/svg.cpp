// The plot is a fixed rectangle; curves are labelled at their right end, and
// labels that would meet are pushed apart.
#include "bench/svg.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <iostream>

namespace vvl::bench
{
namespace
{

constexpr double width = 860, height = 480;
constexpr double left = 90, right = 720, top = 50, bottom = 420; // of the plot
constexpr double label_distance = 16;
constexpr const char *colours[] = {"#1b6ca8", "#c0392b", "#2e8b57", "#8e44ad",
                                   "#d68910", "#16a085", "#7f8c8d", "#34495e"};

std::string format(const char *text, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char *text, ...)
{
    char line[512];
    va_list arguments;
    va_start(arguments, text);
    std::vsnprintf(line, sizeof line, text, arguments);
    va_end(arguments);
    return line;
}

// Decades of one direction, and where a value lies on the page.
struct Axis {
    int first; // power of ten
    int last;
    double from, to; // on the page
    double place(double value) const { return from + (std::log10(value) - first) / (last - first) * (to - from); }
};

Axis make_axis(std::vector<double> values, double from, double to)
{
    const auto [low, high] = std::minmax_element(values.begin(), values.end());
    const int first = static_cast<int>(std::floor(std::log10(*low)));
    const int last = static_cast<int>(std::ceil(std::log10(*high)));
    return {first, std::max(last, first + 1), from, to};
}

std::string count_text(int power)
{
    return format("%.0f", std::pow(10, power));
}

std::string time_text(int power)
{
    constexpr const char *units[] = {"ns", "µs", "ms", "s"};
    const int unit = std::clamp(power / 3, 0, static_cast<int>(std::size(units)) - 1);
    return format("%.0f %s", std::pow(10, power - 3 * unit), units[unit]);
}

std::string grid(const Axis &x, const Axis &y)
{
    std::string svg;
    for (int power = x.first; power <= x.last; power++) {
        const double at = x.place(std::pow(10, power));
        svg += format("<path d='M%.1f %.1fV%.1f' class='grid'/>\n", at, top, bottom);
        svg += format("<text x='%.1f' y='%.1f' text-anchor='middle'>%s</text>\n", at, bottom + 18,
                      count_text(power).c_str());
    }
    for (int power = y.first; power <= y.last; power++) {
        const double at = y.place(std::pow(10, power));
        svg += format("<path d='M%.1f %.1fH%.1f' class='grid'/>\n", left, at, right);
        svg +=
            format("<text x='%.1f' y='%.1f' text-anchor='end'>%s</text>\n", left - 8, at + 4, time_text(power).c_str());
    }
    return svg;
}

std::string line(const Curve &curve, const Axis &x, const Axis &y, const char *colour)
{
    std::string points;
    std::string dots;
    for (const auto &[x_value, y_value] : curve.points) {
        points += format("%.1f,%.1f ", x.place(x_value), y.place(y_value));
        dots += format("<circle cx='%.1f' cy='%.1f' r='3' fill='%s'/>\n", x.place(x_value), y.place(y_value), colour);
    }
    return "<polyline points='" + points + "' fill='none' stroke='" + colour + "' stroke-width='2'/>\n" + dots;
}

// The names at the curves' ends, from the top down.
std::string labels(const std::vector<Curve> &curves, const Axis &y)
{
    std::vector<std::pair<double, size_t>> places;
    for (size_t i = 0; i < curves.size(); i++) {
        places.emplace_back(y.place(curves[i].points.back().second), i);
    }
    std::sort(places.begin(), places.end());
    std::string svg;
    double lowest = 0;
    for (const auto &[wanted, i] : places) {
        const double at = std::max(wanted, lowest + label_distance);
        lowest = at;
        svg += format("<text x='%.1f' y='%.1f' fill='%s'>%s</text>\n", right + 10, at + 4,
                      colours[i % std::size(colours)], curves[i].name.c_str());
    }
    return svg;
}

} // namespace

std::string to_svg(const Chart &chart)
{
    std::vector<double> x_values, y_values;
    for (const Curve &curve : chart.curves) {
        for (const auto &[x_value, y_value] : curve.points) {
            x_values.push_back(x_value);
            y_values.push_back(y_value);
        }
    }
    const Axis x = make_axis(x_values, left, right);
    const Axis y = make_axis(y_values, bottom, top);
    std::string svg = format("<svg xmlns='http://www.w3.org/2000/svg' viewBox='0 0 %.0f %.0f' "
                             "font-family='sans-serif' font-size='13'>\n"
                             "<style>.grid{stroke:#ddd}</style><rect width='100%%' height='100%%' fill='white'/>\n",
                             width, height);
    svg += format("<text x='%.1f' y='28' font-size='16'>%s</text>\n", left, chart.title.c_str()) + grid(x, y);
    svg += format("<text x='%.1f' y='%.1f' text-anchor='middle'>%s</text>\n", (left + right) / 2, bottom + 44,
                  chart.x_title.c_str());
    svg += format("<text transform='translate(22 %.1f) rotate(-90)' text-anchor='middle'>%s</text>\n",
                  (top + bottom) / 2, chart.y_title.c_str());
    for (size_t i = 0; i < chart.curves.size(); i++) {
        svg += line(chart.curves[i], x, y, colours[i % std::size(colours)]);
    }
    return svg + labels(chart.curves, y) + "</svg>\n";
}

bool write_svg(const Chart &chart, const std::string &path)
{
    std::ofstream file(path);
    file << to_svg(chart);
    if (!file.flush()) {
        std::cerr << "bench: " << path << " cannot be written\n";
        return false;
    }
    return true;
}

} // namespace vvl::bench

// No command opens the plane, so they work beside a running agent, and where the
// plane cannot be opened.
#include "platform/host/plane_commands.h"

#include "platform/base/exit.h"
#include "platform/host/plane_choice.h"

#include <algorithm>
#include <cstdio>

namespace vvl::host
{
namespace
{

constexpr const char *program = "vvland";

bool find_plane(const PlaneCommandOptions &options, fp::EbpfOptions &plane, std::string &why)
{
    HostConfig config;
    if (!options.config_file.empty() && !read_config(options.config_file, config, why)) {
        return false;
    }
    plane = config.ebpf;
    if (!options.pin_folder.empty()) {
        plane.pin_folder = options.pin_folder;
    }
    return true;
}

void print_features(const std::vector<fp::EbpfFeature> &features)
{
    size_t width = 0;
    for (const fp::EbpfFeature &feature : features) {
        width = std::max(width, feature.name.size());
    }
    for (const fp::EbpfFeature &feature : features) {
        std::printf("%-*s  %-3s  %s\n", static_cast<int>(width), feature.name.c_str(), feature.available ? "yes" : "no",
                    feature.detail.c_str());
    }
}

using Report = bool(const fp::EbpfOptions &options, std::vector<std::string> &report, std::string &why);

int report_of(const PlaneCommandOptions &options, Report *make_report, const char *words_for_none)
{
    fp::EbpfOptions plane;
    std::vector<std::string> report;
    std::string why;
    if (!find_plane(options, plane, why)) {
        return fail(program, exit_refused, why);
    }
    const bool good = make_report(plane, report, why);
    for (const std::string &line : report) {
        std::printf("%s\n", line.c_str());
    }
    if (!good) {
        return fail(program, exit_failed, why);
    }
    if (report.empty()) {
        std::printf("%s\n", words_for_none);
    }
    return exit_good;
}

} // namespace

int check_plane(const PlaneCommandOptions &options)
{
    fp::EbpfOptions plane;
    std::vector<fp::EbpfFeature> features;
    std::string why;
    if (!find_plane(options, plane, why)) {
        return fail(program, exit_refused, why);
    }
    if (!list_ebpf_features(plane, features, why)) {
        std::printf("--fp ebpf cannot run here: %s\n", why.c_str());
        return exit_failed;
    }
    print_features(features);
    const auto missing = std::count_if(features.begin(), features.end(),
                                       [](const fp::EbpfFeature &feature) { return !feature.available; });
    if (missing != 0) {
        std::printf("--fp ebpf cannot run here: %zu of %zu are missing\n", static_cast<size_t>(missing),
                    features.size());
        return exit_failed;
    }
    std::printf("--fp ebpf can run here\n");
    return exit_good;
}

int detach_plane(const PlaneCommandOptions &options)
{
    return report_of(options, detach_ebpf, "nothing was attached");
}

int show_counters(const PlaneCommandOptions &options)
{
    return report_of(options, count_ebpf, "no port has been known yet");
}

} // namespace vvl::host

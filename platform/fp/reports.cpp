// Delivery of outcome reports. A posted report refers weakly to the
// registration that it was made for: it may outlive the manager and the
// application, whose code is unmapped by then, and must not call into either.
#include "platform/fp/reports.h"

#include <utility>

namespace vvl::fp
{
namespace
{

template <typename Callback, typename... Arguments> void call(Callback callback, Arguments... arguments)
{
    if (callback) {
        callback(nullptr, arguments...);
    }
}

void deliver(const fp_udp_acl_cb_tbl_t &callbacks, const Report &report)
{
    const bool good = report.error == 0;
    const vvlan_acl_desc_t *desc = &report.desc;
    switch (report.kind) {
    case Kind::acl:
        good ? call(callbacks.acl_success, desc) : call(callbacks.acl_failed, desc, report.error);
        break;
    case Kind::ace:
        good ? call(callbacks.ace_success, desc, report.ace_id)
             : call(callbacks.ace_failed, desc, report.ace_id, report.error);
        break;
    case Kind::binding:
        good ? call(callbacks.apply_success, desc)
             : call(callbacks.apply_failed, desc, static_cast<void *>(nullptr), report.error);
        break;
    }
}

} // namespace

void Reports::set_callbacks(const fp_udp_acl_cb_tbl_t *callbacks)
{
    if (!registration_) {
        registration_ = std::make_shared<Registration>();
    }
    registration_->callbacks = callbacks;
}

void Reports::forget()
{
    registration_.reset();
    held_.clear();
}

bool Reports::hold(const Report &report)
{
    if (held_.size() == held_reports_max) {
        return false;
    }
    held_.push_back(report);
    return true;
}

void Reports::release(int error)
{
    for (Report &report : held_) {
        report.error = report.error == 0 ? error : report.error;
    }
    post_all(std::exchange(held_, {}));
}

// A callback may end the registration, so each report looks at it again.
void Reports::post_all(std::vector<Report> reports)
{
    if (reports.empty()) {
        return;
    }
    loop_.post([reports = std::move(reports), weak = std::weak_ptr<Registration>(registration_)] {
        for (const Report &report : reports) {
            if (const auto registration = weak.lock()) {
                deliver(*registration->callbacks, report);
            }
        }
    });
}

} // namespace vvl::fp

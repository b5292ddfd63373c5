#include "tests/walk/model_store.h"

namespace vvl::walk
{

const char *const own_words[own_count] = {"port_auto", "join", "trap", "oui_record"};

void ModelStore::print(Page &page) const
{
    for (size_t type = 0; type < own_count; type++) {
        for (const auto &[key, object] : own[type]) {
            page.line(own_words[type]).word(key).word(object.value);
        }
    }
    for (const auto &registration : registrations) {
        page.line("registration").word(registration.first);
    }
    page.line("error_event").word(error_event);
    page.line("packet_library").number(packet_library);
}

void mark(OwnObjects &objects)
{
    for (auto &object : objects) {
        object.second.marked = true;
    }
}

void sweep(OwnObjects &objects)
{
    std::erase_if(objects, [](const auto &object) { return object.second.marked; });
}

std::string port_auto_text(uint32_t enable)
{
    return "enable " + std::to_string(enable);
}

std::string oui_text(const Mac &mac, const Mac &mask)
{
    return to_text(mac) + "/" + to_text(mask);
}

std::string port_error_text(uint32_t ifx)
{
    return "type 1 ifx " + std::to_string(ifx);
}

std::string oui_error_text(const Mac &mac, const Mac &mask)
{
    return "type 2 oui " + oui_text(mac, mask);
}

} // namespace vvl::walk

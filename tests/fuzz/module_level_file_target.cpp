// The level file with any content: the level stays in its range, and is the
// number that the file says where it says one.
#include "tests/fuzz/memory_file.h"
#include "tests/support/recording_platform.h"
#include "udp_vvlan_base.h"
#include "udp_vvlan_debug.h"

extern char g_vvlan_level_file[];

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    using namespace vvl::test;
    const std::string path = memory_file({data, size});
    static const size_t room = std::strlen(g_vvlan_level_file);
    require(path.size() <= room, "the path fits");
    std::strcpy(g_vvlan_level_file, path.c_str());
    reset_platform();
    g_vvlan_zlog_level = 1;
    require(udp_vvlan_zlog_init() == 0, "the log opens whatever the file holds");
    require(g_vvlan_zlog_level <= 5, "the level is 0 to 5");
    require(size != 0 || g_vvlan_zlog_level == 1, "an empty file changes nothing");
    const bool digit = size != 0 && data[0] >= '0' && data[0] <= '9' && (size == 1 || data[1] == '\n');
    require(!digit || g_vvlan_zlog_level == std::min(data[0] - uint32_t{'0'}, 5u), "one digit is the level, 5 at most");
    return 0;
}

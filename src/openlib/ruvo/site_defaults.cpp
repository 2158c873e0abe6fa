// Only the site's own data: this is the file that a deployer edits.
//
// As shipped, group 0 is the developer's own machine; the others use ranges that are reserved for
// documentation and benchmarking, which no real network answers.
#include "site_defaults.h"

namespace {

constexpr std::array group_0{"127.0.0.", "127.0.1.", "127.0.2."};
constexpr std::array group_1{"198.18.0.", "198.18.1.", "198.18.2.", "198.18.3.", "198.18.4."};
constexpr std::array group_2{"198.19.0.", "198.19.1.", "198.19.2.",
                             "198.19.3.", "198.19.4.", "198.19.5."};
constexpr std::array group_6{"203.0.113."};

}  // namespace

const std::array<std::span<const char* const>, net_seg_group_count> net_seg_list{
    group_0, group_1, group_2, {}, {}, {}, group_6};

const std::array<site_addr_table, 3> site_default_addrs{{
    {"127.0.0.1:22122,127.0.0.2:22122", "127.0.0.1:22123,127.0.0.2:22123",
     "127.0.0.1:22123,127.0.0.2:22123"},
    {"198.18.0.10:22122,198.18.0.11:22122", "198.18.0.10:22123,198.18.0.11:22123",
     "198.18.0.10:22123,198.18.0.11:22123"},
    {"198.19.0.10:22122,198.19.0.11:22122", "198.19.0.10:22123,198.19.0.11:22123",
     "198.19.0.10:22123,198.19.0.11:22123"},
}};

// Where a host finds its servers if the configuration names none: its network decides.
#ifndef RUVO_SITE_DEFAULTS_H
#define RUVO_SITE_DEFAULTS_H

#include <array>
#include <cstddef>
#include <span>

constexpr std::size_t net_seg_group_count = 7;

// For each group of networks the prefixes of its hosts' IPv4 addresses, up to and including a dot.
extern const std::array<std::span<const char* const>, net_seg_group_count> net_seg_list;

// A site's address lists. The row is the number of the pool's type (1 temporary, 2 persistent), so
// row 0 is never chosen; deployed servers listen on the ports of rows 1 and 2.
using site_addr_table = std::array<const char*, 3>;

// The tables of the groups that have servers: 0, 1 and 2.
extern const std::array<site_addr_table, 3> site_default_addrs;

#endif

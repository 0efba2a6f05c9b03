#include "tcp_table.h"

#include <cstdio>

namespace {

constexpr unsigned ESTABLISHED = 1;

} // namespace

bool tcp_row_parse(const char* line, tcp_row* out) {
    unsigned local = 0;
    unsigned remote = 0;
    unsigned port = 0;
    unsigned state = 0;
    unsigned long long inode = 0;
    // sl, local address, remote address, state, queues, timer, retransmits, user, time-out, inode.
    // An address is printed as the number that its bytes in memory make.
    int count = sscanf(line, " %*u: %8x:%*4x %8x:%4x %2x %*8x:%*8x %*2x:%*8x %*8x %*u %*u %llu",
                       &local, &remote, &port, &state, &inode);
    if (count != 5) {
        return false;
    }
    *out = {local, remote, static_cast<uint16_t>(port), state == ESTABLISHED, inode};
    return true;
}

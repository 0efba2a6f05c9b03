#include "support/relay_session.h"

#include <cstdlib>
#include <gtest/gtest.h>

#include "session/cloud_cycle.h"
#include "support/namespaces.h"
#include "transport/cloud_socket.h"

namespace {

constexpr char ADDRESS[] = "127.0.0.1";
constexpr int64_t CONNECT_TIMEOUT_MS = 10000;

} // namespace

relay_session::relay_session()
    : cycle(static_cast<cloud_cycle_t*>(calloc(1, sizeof(cloud_cycle_t)))) {
    write_file(DFLT_CER_FILE_PATH, shared_certificates().root);
    EXPECT_EQ(cloud_cycle_init(ADDRESS, relay.port(), cycle), 0);
    relay.accept();
    EXPECT_EQ(cloud_socket_connect(cycle->cloudSocket, ADDRESS, relay.port(), CONNECT_TIMEOUT_MS),
              0);
    EXPECT_TRUE(relay.is_connected());
}

relay_session::~relay_session() {
    cloud_cycle_destroy(cycle);
}

void relay_session::disconnect() {
    cloud_socket_disconnect(cycle->cloudSocket);
}

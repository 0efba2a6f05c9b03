// The relay's packets on a session, from the bytes that TLS gives to whoever handles them: web
// server, message queue, token helper.
//
// Input: switches (8 bits, below), most bytes of one read (8 bits), seconds between two packets (8
// bits), the token that the helper prints, the web server's port as configured, its answer to each
// request, then the stream. The three texts stand behind their lengths in 16 bits.

#include <sys/eventfd.h>

#include "core/clock.h"
#include "core/helper_program.h"
#include "core/uci_option.h"
#include "queue/cloud_mq.h"
#include "queue/cloud_remote_mq.h"
#include "queue/web_server.h"
#include "relay_stream.h"
#include "session/cloud_cycle.h"
#include "session/dispatch.h"
#include "session/heartbeat.h"
#include "transport/packet_header.h"
#include "transport/relay_packet.h"

namespace {

constexpr unsigned WEB_REFUSES = 1;
constexpr unsigned WEB_BREAKS = 2;
constexpr unsigned WEB_ANSWERS_LATE = 4; // when the stream has ended
constexpr unsigned RELAY_BREAKS = 8;
constexpr unsigned HELPER_FAILS = 16;
constexpr unsigned PORT_UNREADABLE = 32;

constexpr std::string_view CONNECTED = "connected\n"; // in what the web server received

constexpr int PACKETS_MAX = 64;
constexpr int64_t PATIENCE_MS = 5000;
constexpr int64_t START_MS = 1000000;

// The surroundings of one session.
struct surroundings_t {
    unsigned switches = 0;
    std::string_view token;
    std::string_view port;
    std::string_view answer;
    std::string_view unreadAnswer;
    std::string webReceived;
    int64_t now = START_MS;
};

surroundings_t world;

bool is_on(unsigned setting) {
    return (world.switches & setting) != 0;
}

} // namespace

// --- in the place of core/clock, core/helper_program, core/uci_option and queue/web_server ---

int64_t cloud_now_ms() {
    return world.now;
}

ssize_t helper_program_read(const char* /*command*/, char* buffer, size_t size, int64_t /*limit*/) {
    if (is_on(HELPER_FAILS)) {
        return -1;
    }
    const std::string_view printed = world.token.substr(0, size);
    std::copy(printed.begin(), printed.end(), buffer);
    return static_cast<ssize_t>(printed.size());
}

int readUCI(const char* /*str*/, char* out, size_t size) {
    const std::string_view value = world.port.substr(0, std::min(world.port.find('\0'), size - 1));
    std::copy(value.begin(), value.end(), out);
    return is_on(PORT_UNREADABLE) ? -1 : 0;
}

int readUCI(const char* str, char* out, size_t size, uci_cache_t* /*cache*/) {
    return readUCI(str, out, size);
}

int web_server_open() {
    return eventfd(0, 0); // a descriptor, never read
}

int web_server_connect(int /*fd*/, uint16_t port, int64_t /*patience*/) {
    REQUIRE(port != 0);
    world.webReceived += CONNECTED;
    return is_on(WEB_REFUSES) ? -1 : 0;
}

void web_server_expect_pieces(int /*fd*/) {}

int web_server_send(int /*fd*/, const uint8_t* bytes, size_t size, int64_t /*patience*/) {
    world.webReceived.append(reinterpret_cast<const char*>(bytes), size);
    return is_on(WEB_BREAKS) ? -1 : 0;
}

ssize_t web_server_recv(int /*fd*/, uint8_t* buffer, size_t size, int64_t /*patience*/) {
    const std::string_view bytes = world.unreadAnswer.substr(0, size);
    world.unreadAnswer.remove_prefix(bytes.size());
    std::copy(bytes.begin(), bytes.end(), buffer);
    if (bytes.empty()) { // the next connection's answer
        world.unreadAnswer = world.answer;
    }
    return static_cast<ssize_t>(bytes.size());
}

bool web_server_has_answered(int /*fd*/) {
    return !is_on(WEB_ANSWERS_LATE);
}

namespace {

void relay_answers(cloud_cycle_t* cycle) {
    for (int i = 0; i < PACKETS_MAX && pCloudRemoteMq->forwardedNum > 0; i++) {
        fd_set readable;
        FD_ZERO(&readable);
        int maxFd = 0;
        cloud_remote_mq_fdset_set(&readable, &maxFd);
        cloud_remote_mq_response_handle(&readable, cycle->cloudSocket);
        cloud_remote_mq_remove();
    }
}

// One turn of a session's loop, without its wait. Returns 0 or why the session ends.
int take_turn(cloud_cycle_t* cycle) {
    cloud_heartbeat_insert_into_mq(cycle);
    cloud_remote_mq_remove();
    cloud_mq_send_request(cycle);
    uint8_t* received = nullptr;
    size_t length = 0;
    int result = cloud_socket_recv_pkt_hdr(cycle->cloudSocket, &received, &length, PATIENCE_MS);
    if (result == 0) {
        result = cloud_server_handle_dispatch(cycle, received, length, PATIENCE_MS);
    }
    free(received);
    if (!is_on(WEB_ANSWERS_LATE)) {
        relay_answers(cycle);
    }
    return result;
}

struct session_result {
    std::string toWeb;
    std::string toRelay;
    std::string turns; // each turn's result

    bool operator==(const session_result&) const = default;
};

session_result run_session(const surroundings_t& surroundings, std::string_view stream,
                           size_t slice, int64_t pause) {
    world = surroundings;
    relay_stream = {stream, slice, is_on(RELAY_BREAKS), {}};
    cloud_cycle_t* cycle = static_cast<cloud_cycle_t*>(calloc(1, sizeof(cloud_cycle_t)));
    REQUIRE(cloud_cycle_init("127.0.0.1", 1, cycle) == 0);
    relay_stream_connect(cycle->cloudSocket);
    session_result session;
    int result = 0;
    for (int i = 0; i < PACKETS_MAX && result == 0; i++) {
        result = take_turn(cycle);
        session.turns += std::to_string(result) + " ";
        world.now += pause;
    }
    relay_answers(cycle);
    cloud_cycle_destroy(cycle);
    REQUIRE(pCloudRemoteMq->head == nullptr && pCloudRemoteMq->pendingNum == 0 &&
            pCloudRemoteMq->forwardedNum == 0);
    session.toWeb = world.webReceived;
    session.toRelay = relay_stream.written;
    return session;
}

// What the web server gets when a session goes on to the stream's end: each request's body, cut by
// that end. A header that a broken connection cuts is filled with zeros.
std::string expected_for_web(std::string_view stream, bool breaks) {
    std::string expected;
    while (!stream.empty() && (stream.size() >= PACKET_HEADER_SIZE || breaks)) {
        uint8_t bytes[PACKET_HEADER_SIZE] = {};
        const std::string_view head = stream.substr(0, PACKET_HEADER_SIZE);
        std::copy(head.begin(), head.end(), bytes);
        stream.remove_prefix(head.size());
        const packet_header_t header = packet_header_read(bytes);
        const std::string_view body = stream.substr(0, header.dataLen);
        switch (header.magic == PACKET_MAGIC ? header.type : 0) {
        case PACKET_REQUEST:
        case PACKET_REQUEST_UNCOUNTED:
            expected.append(CONNECTED).append(body);
            stream.remove_prefix(body.size());
            break;
        case PACKET_WEB_TOKEN:
            stream.remove_prefix(body.size());
            break;
        case PACKET_HELLO:
        case PACKET_HEARTBEAT:
        case PACKET_RESPONSE:
            break;
        default:
            return expected;
        }
    }
    return expected;
}

// The relay gets whole packets: heartbeats, answers as the web server gave them, tokens.
void check_sent(std::string_view sent, std::string_view answer) {
    while (!sent.empty()) {
        REQUIRE(sent.size() >= PACKET_HEADER_SIZE);
        const packet_header_t header = packet_header_read(sent.data());
        sent.remove_prefix(PACKET_HEADER_SIZE);
        REQUIRE(header.magic == PACKET_MAGIC);
        REQUIRE(header.dataLen <= sent.size());
        const std::string_view body = sent.substr(0, header.dataLen);
        sent.remove_prefix(header.dataLen);
        REQUIRE(header.type != PACKET_HEARTBEAT || body.empty());
        REQUIRE(header.type != PACKET_RESPONSE || body == answer);
        REQUIRE(header.type != PACKET_WEB_TOKEN || body.substr(0, 13) == "{\"err_code\": ");
        REQUIRE(header.type == PACKET_HEARTBEAT || header.type == PACKET_RESPONSE ||
                header.type == PACKET_WEB_TOKEN);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    REQUIRE(freopen("/dev/null", "w", stdout)); // the log
    REQUIRE(cloud_remote_mq_init() == 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input(data, size);
    surroundings_t surroundings;
    surroundings.switches = input.byte();
    const size_t slice = input.byte() + size_t{1};
    const int64_t pause = int64_t{input.byte()} * MS_PER_SECOND;
    surroundings.token = input.text();
    surroundings.port = input.text();
    surroundings.answer = surroundings.unreadAnswer = input.text();
    const std::string_view stream = input.rest();

    const session_result whole = run_session(surroundings, stream, stream.size() + 1, pause);
    REQUIRE(run_session(surroundings, stream, slice, pause) == whole);
    check_sent(whole.toRelay, surroundings.answer);
    if ((surroundings.switches & WEB_BREAKS) == 0) {
        const bool breaks = (surroundings.switches & RELAY_BREAKS) != 0;
        REQUIRE(expected_for_web(stream, breaks).compare(0, whole.toWeb.size(), whole.toWeb) == 0);
    }
    return 0;
}

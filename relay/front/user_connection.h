// One user's connection: reads requests one after the other and answers each, with what the device
// says or with a page of the relay.
#pragma once

#include "devices/exchange.h"
#include "front/front.h"
#include "front/request_reader.h"
#include "front/turn.h"

#include <memory>
#include <optional>

namespace relay {

class UserConnection : public std::enable_shared_from_this<UserConnection> {
public:
    UserConnection(Front& front, const Front::Services& services, Crowd& crowd, Source peer,
                   Socket socket, TlsContext tls);

    Awaitable<void> run();
    void close() { stream_.close(); }
    // Between two requests nothing is lost when the connection ends.
    bool is_idle() const { return reader_.is_idle(); }

private:
    Awaitable<bool> learn_peer();
    Awaitable<bool> serve_one();
    Awaitable<bool> relay(Turn& turn);
    Awaitable<bool> answer_page(Turn& turn);
    void identify(Turn& turn);
    std::optional<PageReason> route(Turn& turn);
    std::shared_ptr<Exchange> submit(Turn& turn);
    void account(const Turn& turn);

    Front& front_;
    Front::Services services_;
    const FrontOptions& options_;
    UserStream stream_;
    RequestReader reader_;
    Source peer_;
    Guest guest_;               // during a request, of its user; else of the peer
    bool unread_input_ = false; // of the last request, which was refused half-way
};

} // namespace relay

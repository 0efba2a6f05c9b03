#include "base/door.h"

namespace relay {

Door::Door(const Executor& executor, Deadlines& deadlines, Clients& clients, const Kind& kind,
           std::function<void(Socket, std::shared_ptr<Client>)> enter,
           std::function<bool()> has_room)
    : clients_(clients), taken_(kind.taken), enter_(std::move(enter)),
      has_room_(std::move(has_room)), crowd_(deadlines, kind.limits, kind.what, kind.count,
                                             kind.turned_away, [this] { listener_.look_again(); }),
      listener_(
          executor, deadlines, [this](Socket socket) { welcome(std::move(socket)); },
          [this] { return has_room_() && crowd_.has_room(); }) {}

void Door::welcome(Socket socket) {
    ++taken_;
    error_code ignored;
    auto client = clients_.at(socket.remote_endpoint(ignored).address());
    if (crowd_.admits(*client))
        enter_(std::move(socket), std::move(client)); // else it is closed
}

} // namespace relay

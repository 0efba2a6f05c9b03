#include "base/door.h"

#include "coroutines.h"

#include <gmock/gmock.h>

#include <list>

namespace relay {
namespace {

// A connection as the owner of a door has it.
struct Inside {
    Inside(Crowd& crowd, Socket its_socket, std::shared_ptr<Client> client, bool& is_idle)
        : socket(std::move(its_socket)),
          guest(
              crowd, std::move(client), [&is_idle] { return is_idle; },
              [this] { socket.close(); }) {}

    Socket socket;
    Guest guest;
};

class DoorOfTwo : public testing::Test {
protected:
    void SetUp() override {
        deadlines_.start([] {});
        testing::internal::CaptureStderr(); // the log
        ASSERT_TRUE(door_.listen({"127.0.0.1", 0}, error_)) << error_;
    }
    void TearDown() override {
        door_.close();
        coroutines_.settle();
        testing::internal::GetCapturedStderr();
    }

    Socket user(const char* address = "127.0.0.1") {
        Socket user(coroutines_.executor(), {asio::ip::make_address(address), 0});
        user.connect({asio::ip::make_address("127.0.0.1"), door_.port()});
        return user;
    }

    void leave(const Inside& one) {
        inside_.remove_if([&one](const Inside& each) { return &each == &one; });
    }

    Coroutines coroutines_;
    Deadlines deadlines_{coroutines_.executor()};
    Clients clients_;
    std::uint64_t taken_ = 0;
    std::uint64_t turned_away_ = 0;
    bool has_room_ = true;
    bool is_idle_ = false;
    Door door_{coroutines_.executor(),
               deadlines_,
               clients_,
               {{3, 2}, "connections", users_count, taken_, turned_away_},
               [this](Socket socket, std::shared_ptr<Client> client) {
                   inside_.emplace_back(door_.crowd(), std::move(socket), std::move(client),
                                        is_idle_);
               },
               [this] { return has_room_; }};
    std::list<Inside> inside_;
    std::string error_;
};

TEST_F(DoorOfTwo, LetsAsManyOfOneAddressInAsItsShare) {
    const Socket first = user();
    const Socket second = user();
    const Socket third = user();
    coroutines_.run_until([this] { return taken_ == 3; });
    EXPECT_EQ(inside_.size(), 2U);
    EXPECT_EQ(turned_away_, 1U);
    const Socket neighbour = user("127.0.0.2");
    coroutines_.run_until([this] { return inside_.size() == 3; });
}

TEST_F(DoorOfTwo, HasNewcomersWaitUntilSomebodyLeaves) {
    const Socket first = user();
    const Socket second = user("127.0.0.2");
    const Socket third = user("127.0.0.3");
    coroutines_.run_until([this] { return inside_.size() == 3; });
    const Socket late = user("127.0.0.4");
    coroutines_.settle();
    EXPECT_EQ(taken_, 3U) << "it waits in the system's queue";
    inside_.pop_front();
    coroutines_.run_until([this] { return inside_.size() == 3; });
    EXPECT_EQ(turned_away_, 0U);
}

TEST_F(DoorOfTwo, SendsAnIdleOneAwayForANewcomer) {
    const Socket first = user();
    const Socket second = user("127.0.0.2");
    const Socket third = user("127.0.0.3");
    coroutines_.run_until([this] { return inside_.size() == 3; });
    is_idle_ = true;
    const Socket late = user("127.0.0.4");
    coroutines_.run_until([this] { return turned_away_ == 1; });
    EXPECT_FALSE(inside_.front().socket.is_open()) << "the oldest of them";
    leave(inside_.front());
    coroutines_.run_until([this] { return taken_ == 4; });
}

TEST_F(DoorOfTwo, StaysShutWhileItsOwnerHasNoRoom) {
    has_room_ = false;
    const Socket first = user();
    coroutines_.settle();
    EXPECT_EQ(taken_, 0U);
    has_room_ = true;
    door_.look_again();
    coroutines_.run_until([this] { return inside_.size() == 1; });
}

} // namespace
} // namespace relay

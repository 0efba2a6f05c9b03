#include "base/crowd.h"

#include "coroutines.h"

#include <gmock/gmock.h>

#include <map>
#include <optional>

namespace relay {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// Guests by name. One who is sent away leaves when leave() is called, as a coroutine ends later.
class CrowdTest : public testing::Test {
protected:
    static constexpr Crowd::Limits limits{4, 3};

    static constexpr const char* proxy = "192.0.2.99";

    static Networks trusted() {
        Networks networks;
        EXPECT_TRUE(networks.add(proxy));
        return networks;
    }

    void SetUp() override { testing::internal::CaptureStderr(); }
    void TearDown() override { testing::internal::GetCapturedStderr(); }

    std::shared_ptr<Client> client(const std::string& address) {
        return clients_.at(asio::ip::make_address(address));
    }
    void enter(const std::string& name, const std::string& address, bool is_idle) {
        idle_[name] = is_idle;
        guests_.try_emplace(
            name, crowd_, client(address), [this, name] { return idle_[name]; },
            [this, name] { sent_away_.push_back(name); });
    }
    void leave(const std::string& name) { guests_.erase(name); }

    Coroutines coroutines_;
    Deadlines deadlines_{coroutines_.executor()};
    Clients clients_{trusted()};
    std::uint64_t turned_away_ = 0;
    int left_ = 0;
    Crowd crowd_{deadlines_, limits, "guests", users_count, turned_away_, [this] { ++left_; }};
    std::map<std::string, bool> idle_;
    std::map<std::string, Guest> guests_;
    std::vector<std::string> sent_away_;
};

TEST_F(CrowdTest, HasRoomUntilAllPlacesAreTaken) {
    for (const char* name : {"a", "b", "c", "d"}) {
        EXPECT_TRUE(crowd_.has_room());
        enter(name, std::string("192.0.2.") + std::to_string(crowd_.size()), false);
    }
    EXPECT_EQ(crowd_.size(), 4u);
    EXPECT_FALSE(crowd_.has_room());
    EXPECT_THAT(sent_away_, IsEmpty()) << "nobody who is busy has to go";
    leave("a");
    EXPECT_EQ(left_, 1);
    EXPECT_TRUE(crowd_.has_room());
}

TEST_F(CrowdTest, SendsAwayTheOldestIdleOneOfTheAddressThatHasMost) {
    enter("alone", "192.0.2.1", true);
    enter("busy", "192.0.2.2", false);
    enter("old", "192.0.2.2", true);
    enter("young", "192.0.2.2", true);
    EXPECT_FALSE(crowd_.has_room());
    EXPECT_THAT(sent_away_, ElementsAre("old"));
    EXPECT_FALSE(crowd_.has_room()) << "it is still on its way out";
    EXPECT_THAT(sent_away_, ElementsAre("old")) << "and one is enough";
    leave("old");
    EXPECT_TRUE(crowd_.has_room());
    EXPECT_EQ(turned_away_, 1u);
}

TEST_F(CrowdTest, TurnsAwayAnAddressWithoutAShareLeft) {
    for (const char* name : {"a", "b", "c"}) {
        EXPECT_TRUE(crowd_.admits(*client("192.0.2.1")));
        enter(name, "192.0.2.1", false);
    }
    EXPECT_FALSE(crowd_.admits(*client("192.0.2.1")));
    EXPECT_EQ(turned_away_, 1u);
    EXPECT_TRUE(crowd_.admits(*client("192.0.2.2")));
}

TEST_F(CrowdTest, SendsAwayAnIdleOneOfTheSameAddressFirst) {
    enter("other", "192.0.2.2", true);
    enter("a", "192.0.2.1", false);
    enter("b", "192.0.2.1", true);
    enter("c", "192.0.2.1", true);
    EXPECT_TRUE(crowd_.admits(*client("192.0.2.1")));
    EXPECT_THAT(sent_away_, ElementsAre("b"));
}

TEST_F(CrowdTest, GivesATrustedProxyAllPlaces) {
    for (const char* name : {"a", "b", "c", "d"}) {
        EXPECT_TRUE(crowd_.admits(*client(proxy)));
        enter(name, proxy, false);
    }
    EXPECT_FALSE(crowd_.has_room());
    EXPECT_EQ(turned_away_, 0u);
}

TEST_F(CrowdTest, CountsAGuestForTheAddressThatATrustedProxyNames) {
    for (const char* name : {"a", "b", "c"}) {
        enter(name, proxy, false);
        EXPECT_TRUE(guests_.at(name).comes_from(client("192.0.2.1")));
        EXPECT_EQ(&guests_.at(name).client(), client("192.0.2.1").get());
    }
    EXPECT_EQ(client("192.0.2.1")->connections[users_count], 3u);
    EXPECT_EQ(client(proxy)->connections[users_count], 0u);
    EXPECT_FALSE(crowd_.admits(*client("192.0.2.1"))) << "it may not come by itself either";
    leave("a");
    EXPECT_EQ(client("192.0.2.1")->connections[users_count], 2u);
}

TEST_F(CrowdTest, TurnsAwayWhatATrustedProxyBringsOfAnAddressWithoutAShareLeft) {
    for (const char* name : {"a", "b", "c"})
        enter(name, "192.0.2.1", false);
    enter("brought", proxy, false);
    EXPECT_FALSE(guests_.at("brought").comes_from(client("192.0.2.1")));
    EXPECT_EQ(&guests_.at("brought").client(), client(proxy).get());
    EXPECT_EQ(turned_away_, 1u);
    EXPECT_TRUE(guests_.at("brought").comes_from(client("192.0.2.2")));
    EXPECT_TRUE(guests_.at("a").comes_from(client("192.0.2.1"))) << "it is one of them already";
}

TEST_F(CrowdTest, LogsTheFirstOneAtOnceAndThenOnceAMinute) {
    for (const char* name : {"a", "b", "c"})
        enter(name, "192.0.2.1", false);
    for (int i = 0; i < 1000; ++i)
        EXPECT_FALSE(crowd_.admits(*client("192.0.2.1")));
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_THAT(log, HasSubstr(" warning too many guests: 1 turned away\n"));
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1);
    EXPECT_EQ(turned_away_, 1000u);
    testing::internal::CaptureStderr();
}

TEST_F(CrowdTest, MayGoBeforeItsGuests) {
    std::optional<Crowd> crowd;
    crowd.emplace(deadlines_, limits, "guests", users_count, turned_away_, [this] { ++left_; });
    const Guest guest(
        *crowd, client("192.0.2.1"), [] { return true; }, [] {});
    crowd.reset();
    EXPECT_EQ(left_, 0);
}

} // namespace
} // namespace relay

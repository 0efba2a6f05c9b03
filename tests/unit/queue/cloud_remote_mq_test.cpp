// The queue itself: its making, its nodes' order and end, and what it tells the session's select.

#include "queue/cloud_remote_mq.h"

#include "unit/queue/remote_requests.h"

using internal::_cloud_remote_mq_node_destroy;
using internal::_cloud_remote_mq_sp_remove;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const bool isPrivate = private_namespaces();

constexpr int64_t NODE_TIMEOUT_MS = 10000;

// A queue without connections, whose nodes are made by hand.
class remote_mq_nodes : public testing::Test {
protected:
    void TearDown() override { cloud_remote_mq_clear(); }

    // Appends a node of this thread and counts it.
    cloud_remote_mq_node_t* append(int32_t status, int fd = -1) {
        auto node = static_cast<cloud_remote_mq_node_t*>(calloc(1, sizeof(cloud_remote_mq_node_t)));
        node->status = status;
        node->webSvrSockfd = fd;
        node->timeout = NODE_TIMEOUT_MS;
        node->worker = pthread_self();
        if (pCloudRemoteMq->head == nullptr) {
            pCloudRemoteMq->head = node;
        } else {
            pCloudRemoteMq->tail->next = node;
        }
        pCloudRemoteMq->tail = node;
        (status == REMOTE_MQ_INSERTED ? pCloudRemoteMq->pendingNum
                                      : pCloudRemoteMq->forwardedNum)++;
        return node;
    }

    log_capture log;
    remote_queue queue;
};

// --- Creation

TEST_F(remote_mq_nodes, there_are_none_at_first) {
    EXPECT_EQ(pCloudRemoteMq->pendingNum, 0u);
    EXPECT_EQ(pCloudRemoteMq->forwardedNum, 0u);
    EXPECT_EQ(pCloudRemoteMq->head, nullptr);
    EXPECT_EQ(pCloudRemoteMq->tail, nullptr);
}

TEST_F(remote_mq_nodes, are_guarded_by_a_lock_that_its_holder_may_take_again) {
    ASSERT_EQ(pthread_mutex_lock(&gRemoteMqLock), 0);
    EXPECT_EQ(pthread_mutex_trylock(&gRemoteMqLock), 0);
    verb_queue other;
    EXPECT_EQ(other.run([] { return pthread_mutex_trylock(&gRemoteMqLock); }), EBUSY);
    pthread_mutex_unlock(&gRemoteMqLock);
    pthread_mutex_unlock(&gRemoteMqLock);
}

TEST(remote_mq_init, fails_when_memory_is_short) {
    log_capture log;
    fail_call noMemory("calloc", 1);
    EXPECT_EQ(cloud_remote_mq_init(), -1);
    EXPECT_EQ(pCloudRemoteMq, nullptr);
    EXPECT_THAT(log.lines(), ElementsAre(error_line("cloud_remote_mq_init",
                                                    "E - 1 call NULL == (pCloudRemoteMq = "
                                                    "malloc(sizeof(cloud_remote_mq_t))) failed.")));
    pthread_mutex_destroy(&gRemoteMqLock);
}

TEST(remote_mq_without_queue, every_operation_says_so) {
    ASSERT_EQ(pCloudRemoteMq, nullptr);
    ASSERT_EQ(pthread_mutex_init(&gRemoteMqLock, nullptr), 0);
    log_capture log;
    fd_set set;
    FD_ZERO(&set);
    int maxFd = 9;
    cloud_cycle_t cycle = {};
    const std::string header = header_bytes(REQUEST, 1, 0);
    cloud_remote_mq_node_t* node = nullptr;
    cloud_remote_mq_fdset_set(&set, &maxFd);
    EXPECT_EQ(maxFd, 9);
    EXPECT_EQ(cloud_remote_mq_response_handle(&set, nullptr), 100);
    cloud_remote_mq_remove();
    cloud_remote_mq_clear();
    EXPECT_EQ(_cloud_remote_mq_sp_remove(&node, &node), 100);
    EXPECT_EQ(
        cloud_remote_mq_request_handle(&cycle, reinterpret_cast<const uint8_t*>(header.data()), 1),
        100);
    constexpr char MESSAGE[] = "Ensure NULL != pCloudRemoteMq failed.";
    EXPECT_THAT(log.lines(), ElementsAre(error_line("cloud_remote_mq_fdset_set", MESSAGE),
                                         error_line(HANDLE_RESPONSE, MESSAGE),
                                         error_line("cloud_remote_mq_remove", MESSAGE),
                                         error_line("cloud_remote_mq_clear", MESSAGE),
                                         error_line("_cloud_remote_mq_sp_remove", MESSAGE),
                                         info_line(HANDLE_REQUEST, "start handle, ret 0."),
                                         error_line(HANDLE_REQUEST, MESSAGE)));
    pthread_mutex_destroy(&gRemoteMqLock);
}

// --- The select's set

TEST_F(remote_mq_nodes, need_a_set_and_a_bound_to_be_waited_for) {
    fd_set set;
    int maxFd = 9;
    cloud_remote_mq_fdset_set(nullptr, &maxFd);
    cloud_remote_mq_fdset_set(&set, nullptr);
    constexpr char MESSAGE[] = "Ensure NULL != pfdset && NULL != maxFd failed.";
    EXPECT_THAT(log.lines(), ElementsAre(error_line("cloud_remote_mq_fdset_set", MESSAGE),
                                         error_line("cloud_remote_mq_fdset_set", MESSAGE)));
    EXPECT_EQ(maxFd, 9);
}

// The bound that the session's select gets, whose own descriptor is 9, and what is in the set.
struct selection {
    int maxFd = 9;
    std::vector<int> watched;
};

selection select_for_queue() {
    selection chosen;
    fd_set set;
    FD_ZERO(&set);
    cloud_remote_mq_fdset_set(&set, &chosen.maxFd);
    for (int fd = 0; fd < FD_SETSIZE; fd++) {
        if (FD_ISSET(fd, &set)) {
            chosen.watched.push_back(fd);
        }
    }
    return chosen;
}

// Descriptors that a test may name freely; closed ones, so that the end of a node harms nothing.
constexpr int FREE_FD = 900;

TEST_F(remote_mq_nodes, leave_the_bound_alone_while_nothing_was_forwarded) {
    EXPECT_EQ(select_for_queue().maxFd, 9);
    append(REMOTE_MQ_INSERTED, FREE_FD);
    selection chosen = select_for_queue();
    EXPECT_EQ(chosen.maxFd, 9);
    EXPECT_THAT(chosen.watched, IsEmpty());
}

TEST_F(remote_mq_nodes, overwrite_the_bound_with_their_own_even_if_that_is_lower) {
    cloud_remote_mq_node_t* node = append(REMOTE_MQ_FORWARDED, 7);
    selection chosen = select_for_queue();
    EXPECT_EQ(chosen.maxFd, 7);
    EXPECT_THAT(chosen.watched, ElementsAre(7));
    node->webSvrSockfd = -1; // the test program's own
}

TEST_F(remote_mq_nodes, overwrite_the_bound_with_the_largest_of_theirs) {
    append(REMOTE_MQ_FORWARDED, FREE_FD + 5);
    append(REMOTE_MQ_FORWARDED, FREE_FD + 8);
    append(REMOTE_MQ_FORWARDED, FREE_FD + 2);
    selection chosen = select_for_queue();
    EXPECT_EQ(chosen.maxFd, FREE_FD + 8);
    EXPECT_THAT(chosen.watched, ElementsAre(FREE_FD + 2, FREE_FD + 5, FREE_FD + 8));
}

TEST_F(remote_mq_nodes, set_the_bound_to_minus_one_when_none_awaits_an_answer_any_more) {
    append(REMOTE_MQ_ANSWERED);
    append(REMOTE_MQ_FORWARDED, -1);
    append(REMOTE_MQ_INSERTED, FREE_FD);
    selection chosen = select_for_queue();
    EXPECT_EQ(chosen.maxFd, -1);
    EXPECT_THAT(chosen.watched, IsEmpty());
}

TEST_F(remote_mq_nodes, add_to_the_set_what_the_caller_put_there) {
    append(REMOTE_MQ_FORWARDED, FREE_FD);
    fd_set set;
    FD_ZERO(&set);
    FD_SET(9, &set);
    int maxFd = 9;
    cloud_remote_mq_fdset_set(&set, &maxFd);
    EXPECT_TRUE(FD_ISSET(9, &set));
    EXPECT_TRUE(FD_ISSET(FREE_FD, &set));
}

// --- Their end

TEST_F(remote_mq_nodes, are_kept_for_the_whole_of_their_timeout_and_dropped_right_after) {
    moved_clock clock;
    clock.stop();
    int64_t now = cloud_now_ms();
    append(REMOTE_MQ_INSERTED)->updateTime = now;
    append(REMOTE_MQ_FORWARDED)->updateTime = now;
    clock.move(NODE_TIMEOUT_MS);
    cloud_remote_mq_remove();
    EXPECT_EQ(pCloudRemoteMq->pendingNum, 1u);
    EXPECT_EQ(pCloudRemoteMq->forwardedNum, 1u);
    clock.move(1);
    cloud_remote_mq_remove();
    EXPECT_EQ(pCloudRemoteMq->pendingNum, 0u);
    EXPECT_EQ(pCloudRemoteMq->forwardedNum, 0u);
    EXPECT_EQ(pCloudRemoteMq->head, nullptr);
    EXPECT_EQ(pCloudRemoteMq->tail, nullptr);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(remote_mq_nodes, are_dropped_at_once_when_answered) {
    append(REMOTE_MQ_ANSWERED)->updateTime = cloud_now_ms();
    cloud_remote_mq_remove();
    EXPECT_EQ(pCloudRemoteMq->head, nullptr);
    EXPECT_EQ(pCloudRemoteMq->forwardedNum, 0u);
}

// Which nodes are done: the first, the last, one in the middle, neighbours, all.
class remote_mq_removal : public remote_mq_nodes, public testing::WithParamInterface<int> {};

TEST_P(remote_mq_removal, leaves_the_others_in_order_and_the_list_whole) {
    constexpr int COUNT = 4;
    std::vector<cloud_remote_mq_node_t*> kept;
    for (int i = 0; i < COUNT; i++) {
        bool done = (GetParam() >> i & 1) != 0;
        auto node = append(done ? REMOTE_MQ_ANSWERED : REMOTE_MQ_FORWARDED);
        node->updateTime = cloud_now_ms();
        if (!done) {
            kept.push_back(node);
        }
    }
    cloud_remote_mq_remove();
    kept.push_back(append(REMOTE_MQ_FORWARDED)); // finds a good tail
    std::vector<cloud_remote_mq_node_t*> found;
    for (auto node = pCloudRemoteMq->head; node != nullptr; node = node->next) {
        found.push_back(node);
    }
    EXPECT_EQ(found, kept);
    EXPECT_EQ(pCloudRemoteMq->forwardedNum, kept.size());
}

INSTANTIATE_TEST_SUITE_P(of_any_of_four, remote_mq_removal, testing::Range(0, 16));

TEST_F(remote_mq_nodes, close_their_socket_and_free_their_blocks_at_their_end) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    cloud_remote_mq_node_t* node = append(REMOTE_MQ_ANSWERED, ends[0]);
    node->reqHdr = static_cast<uint8_t*>(malloc(13)); // the leak checker sees both go
    node->respPkt = static_cast<uint8_t*>(malloc(100));
    cloud_remote_mq_remove();
    EXPECT_EQ(read_bytes(ends[1], 1), "");
    close(ends[1]);
}

TEST_F(remote_mq_nodes, are_all_dropped_by_a_clear) {
    append(REMOTE_MQ_INSERTED)->updateTime = cloud_now_ms();
    append(REMOTE_MQ_FORWARDED)->updateTime = cloud_now_ms();
    append(REMOTE_MQ_ANSWERED);
    cloud_remote_mq_clear();
    EXPECT_EQ(pCloudRemoteMq->pendingNum, 0u);
    EXPECT_EQ(pCloudRemoteMq->forwardedNum, 0u);
    EXPECT_EQ(pCloudRemoteMq->head, nullptr);
    EXPECT_EQ(pCloudRemoteMq->tail, nullptr);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(remote_mq_nodes, are_missed_by_a_clear_of_nothing) {
    cloud_remote_mq_clear();
    cloud_remote_mq_remove(); // which says nothing
    EXPECT_THAT(log.lines(), ElementsAre(info_line("cloud_remote_mq_clear",
                                                   "[CRC:] The remote requests list is empty.")));
}

TEST_F(remote_mq_nodes, are_unlinked_one_by_one_without_touching_the_counters) {
    cloud_remote_mq_node_t* first = append(REMOTE_MQ_FORWARDED);
    cloud_remote_mq_node_t* second = append(REMOTE_MQ_FORWARDED);
    cloud_remote_mq_node_t* third = append(REMOTE_MQ_FORWARDED);

    cloud_remote_mq_node_t* prev = second;
    cloud_remote_mq_node_t* node = third;
    EXPECT_EQ(_cloud_remote_mq_sp_remove(&prev, &node), 0);
    EXPECT_EQ(prev, second);
    EXPECT_EQ(node, nullptr);
    EXPECT_EQ(pCloudRemoteMq->tail, second);

    prev = nullptr;
    node = first;
    EXPECT_EQ(_cloud_remote_mq_sp_remove(&prev, &node), 0);
    EXPECT_EQ(prev, nullptr);
    EXPECT_EQ(node, second);
    EXPECT_EQ(pCloudRemoteMq->head, second);
    EXPECT_EQ(pCloudRemoteMq->forwardedNum, 3u);
}

TEST_F(remote_mq_nodes, cannot_be_destroyed_when_null) {
    _cloud_remote_mq_node_destroy(nullptr);
    EXPECT_THAT(log.lines(), ElementsAre(error_line("_cloud_remote_mq_node_destroy",
                                                    "Ensure NULL != pRemoteMqNode failed.")));
}

} // namespace

// The broker against recordings of stock peers: recorded clients get the recorded answers, but for
// the ids, which are drawn at random.

#include <map>
#include <memory>
#include <set>

#include <gtest/gtest.h>

#include "broker_process.h"
#include "recording.h"
#include "support/lacking.h"

namespace {

using Words = std::vector<uint32_t>;

// Everything on this wire is a multiple of four bytes, and every id stands at one.
Words words_of(const Bytes& bytes) {
    EXPECT_EQ(bytes.size() % 4, 0U);
    Words words;
    for (size_t at = 0; at + 4 <= bytes.size(); at += 4) {
        words.push_back(uint32_t{bytes[at]} << 24 | uint32_t{bytes[at + 1]} << 16 |
                        uint32_t{bytes[at + 2]} << 8 | bytes[at + 3]);
    }
    return words;
}

Bytes bytes_of(const Words& words) {
    Bytes bytes;
    for (const uint32_t word : words) {
        for (int shift = 24; shift >= 0; shift -= 8) {
            bytes.push_back(static_cast<uint8_t>(word >> shift));
        }
    }
    return bytes;
}

// Client ids stand in HELLO, object and type ids behind the heads of their attributes.
std::set<uint32_t> ids_in(const std::vector<RecordedRead>& reads) {
    constexpr uint32_t hello = 0x00000000;
    constexpr uint32_t objid_head = 0x03000008;
    constexpr uint32_t objtype_head = 0x05000008;
    std::set<uint32_t> ids;
    for (const RecordedRead& read : reads) {
        const Words words = words_of(read.bytes);
        if (read.from_broker && words[0] == hello) {
            ids.insert(words[1]);
        }
        for (size_t i = 1; i < words.size(); i++) {
            if (words[i - 1] == objid_head || words[i - 1] == objtype_head) {
                ids.insert(words[i]);
            }
        }
    }
    ids.erase(1); // the broker's own object
    return ids;
}

class ReplayBroker : public testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) {
            SKIP_LACKING("root, as whom the recorded callers ran");
        }
    }

    void load(const char* name) {
        m_reads = load_recording(name);
        m_ids = ids_in(m_reads);
    }

    // Connections that have no more to say stay open, or leave.
    void play(bool leave_when_done) {
        for (size_t i = 0; i < m_reads.size() && !HasFailure(); i++) {
            const RecordedRead& read = m_reads[i];
            RawPeer& peer = connection(read.connection);
            if (read.from_broker) {
                expect(peer, read.bytes);
            } else {
                send(peer, read.bytes);
            }
            if (leave_when_done && is_last(i)) {
                peer.close();
            }
        }
    }

private:
    RawPeer& connection(int number) {
        std::unique_ptr<RawPeer>& peer = m_connections[number];
        if (!peer) {
            peer = std::make_unique<RawPeer>(m_broker.socket());
        }
        return *peer;
    }

    bool is_last(size_t at) const {
        for (size_t i = at + 1; i < m_reads.size(); i++) {
            if (m_reads[i].connection == m_reads[at].connection) {
                return false;
            }
        }
        return true;
    }

    void send(RawPeer& peer, const Bytes& recorded) {
        Words words = words_of(recorded);
        for (uint32_t& word : words) {
            word = m_ids.count(word) ? m_actual.at(word) : word;
        }
        peer.send(bytes_of(words));
    }

    void expect(RawPeer& peer, const Bytes& recorded) {
        const Words wanted = words_of(recorded);
        const Words got = words_of(peer.read(recorded.size()));
        Words translated;
        for (size_t i = 0; i < wanted.size() && i < got.size(); i++) {
            if (m_ids.count(wanted[i]) && !m_actual.count(wanted[i])) {
                EXPECT_GT(got[i], 1024U) << "an id of the broker's own range";
                m_actual[wanted[i]] = got[i];
            }
            translated.push_back(m_ids.count(wanted[i]) ? m_actual.at(wanted[i]) : wanted[i]);
        }
        EXPECT_EQ(to_hex(bytes_of(got)), to_hex(bytes_of(translated)));
    }

    std::vector<RecordedRead> m_reads;
    std::set<uint32_t> m_ids;
    std::map<uint32_t, uint32_t> m_actual; // by recorded id
    BrokerProcess m_broker;
    std::map<int, std::unique_ptr<RawPeer>> m_connections;
};

TEST_F(ReplayBroker, AnswersAServiceAndItsCallersAsTheStockBrokerDoes) {
    load("vectors.txt");
    play(false);
}

TEST_F(ReplayBroker, CarriesEventsAsTheStockBrokerDoes) {
    load("vectors-events.txt");
    play(true);
}

} // namespace

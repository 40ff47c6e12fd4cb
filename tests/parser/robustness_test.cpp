// Mutated traffic: whatever lengths and offsets the wire claims, the parser only reads the
// bytes it was given (run under AddressSanitizer, every payload sits in a buffer of its exact
// size) and answers with one of its result codes.
#include <memory>
#include <random>

#include "parser_harness.h"

namespace smb2test {
namespace {

std::vector<Bytes> corpus() {
    const Bytes name = utf16(std::string_view("a\\b\\c.txt"));
    std::vector<Bytes> c;
    for (uint16_t command = 0; command <= 19; ++command) {
        c.push_back(session(encode(request(command, command, 1, request_body(command, 7)))));
        c.push_back(session(encode(response(command, command, 1, response_body(command, 7)))));
    }
    c.push_back(session(encode(request(TREE_CONNECT, 1, 0, tree_connect_request_body(name)))));
    c.push_back(session(encode(request(CREATE, 2, 1, create_request_body(name, 3, 0x1000)))));
    c.push_back(session(encode(response(CREATE, 2, 1, create_response_body(1, 0x10, 7)))));
    c.push_back(session(encode(request(SET_INFO, 3, 1, set_disposition_body(7, true)))));
    for (uint32_t flags : {0u, kRelated}) {
        for (uint32_t dir : {0u, kResponse}) {
            std::vector<Message> chain;
            for (uint16_t command : {CREATE, TREE_CONNECT, SET_INFO, READ, OPLOCK_BREAK, CLOSE}) {
                Message m = request(command, 10 + command, 1,
                                    dir ? response_body(command, 7) : request_body(command, 7),
                                    flags | dir);
                if (command == CREATE)
                    m.body = dir ? create_response_body(1, 0, 7) : create_request_body(name, 1);
                chain.push_back(m);
            }
            const Bytes framed = session(compound(chain));
            c.push_back(framed);
            for (const Bytes &s : split_even(framed, 3))
                c.push_back(s);
        }
    }
    c.push_back(smb1_message(0x72));
    c.push_back(transform_message(40));
    return c;
}

void mutate(Bytes &b, std::mt19937_64 &rng) {
    auto pick = [&](size_t n) { return n ? size_t(rng() % n) : 0; };
    const uint32_t interesting[] = {0,
                                    1,
                                    8,
                                    63,
                                    64,
                                    65,
                                    0x7fffffff,
                                    0xffffffff,
                                    uint32_t(b.size()),
                                    uint32_t(b.size() - 4),
                                    uint32_t(rng())};
    switch (rng() % 5) {
        case 0:
            for (int i = 0, n = 1 + int(rng() % 8); i < n && !b.empty(); ++i)
                b[pick(b.size())] = uint8_t(rng());
            break;
        case 1:  // a 16 or 32-bit length or offset field
            if (b.size() >= 4) {
                const size_t at = pick(b.size() - 3);
                const uint32_t v = interesting[pick(std::size(interesting))];
                for (int i = 0; i < (rng() % 2 ? 2 : 4); ++i)
                    b[at + i] = uint8_t(v >> (8 * i));
            }
            break;
        case 2:
            b.resize(pick(b.size() + 1));
            break;
        case 3:  // the session length word
            if (b.size() >= 4) {
                const uint32_t v = interesting[pick(std::size(interesting))];
                for (int i = 0; i < 4; ++i)
                    b[i] = uint8_t(v >> (8 * (3 - i)));
            }
            break;
        default:  // NextCommand of the first header
            if (b.size() >= 28) {
                const uint32_t v = interesting[pick(std::size(interesting))];
                for (int i = 0; i < 4; ++i)
                    b[24 + i] = uint8_t(v >> (8 * i));
            }
            break;
    }
}

TEST(Robustness, MutatedTrafficStaysInsideItsBytes) {
    const std::vector<Bytes> seeds = corpus();
    std::mt19937_64 rng(0x5eed);
    ParserHarness h;
    for (int i = 0; i < 40000; ++i) {
        Bytes b = seeds[rng() % seeds.size()];
        for (int m = 0, n = 1 + int(rng() % 3); m < n; ++m)
            mutate(b, rng);

        // The payload in a heap block of exactly its size.
        std::unique_ptr<uint8_t[]> exact(new uint8_t[b.size()]);
        std::copy(b.begin(), b.end(), exact.get());
        Packet shape = rng() % 2 ? h.to_server({}) : h.to_client({});
        host_packet pkt = shape.pkt();
        pkt.data = exact.get();
        pkt.length = uint16_t(b.size());
        pkt.payload_offset = 0;

        Record rec;
        const int32_t r = smb_parse_packet(&pkt, &rec.rec, &h.q(), exact.get());
        ASSERT_TRUE(r == -1 || r == 0 || r == 1 || r == 2 || r == 3 || r == 5) << r;
    }
}

}  // namespace
}  // namespace smb2test

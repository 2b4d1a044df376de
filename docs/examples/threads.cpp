// Threads: one KV API object (with its cipher suite) and one log category
// shared by several threads, each with its own messages, buffers and scratch
// record.
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "expect.h"
#include "guide.pb.h"
#include "protobuf_api/aes_siv_cipher_suite.h"
#include "protobuf_api/protobuf_util.h"

namespace {

const char kCardsKey[] = "00112233445566778899aabbccddeeff102132435465768798a9bacbdcedfe0f";
constexpr int kThreads = 2;
constexpr int kCardsPerThread = 500;

std::string CardNumber(int i) { return "40001234" + std::to_string(10000000 + i); }

// The key of card i, built in the calling thread.
std::string CardKey(CORVIDA_KV::CorvidaKVApi& kv, int i, tagtbl_idl* idl, LPPLOGCATEGORYINST log) {
    bank::Card card;
    card.set_card_number(CardNumber(i));
    card.ByteSizeLong();
    uint8_t key[1024];
    int32_t size = sizeof(key);
    if (PROTOBUF_UTIL::ProtobufUtil::ExtractMsgKey(&kv, card, key, size, idl, log, true) != 0) return "";
    return std::string(reinterpret_cast<char*>(key), size);
}

}  // namespace

int main() {
    PLOGCATEGORYINST log;  // the default sink writes whole lines and may be shared
    plog_category_init(&log, "guide", PLOG_PRIORITY_ERROR);

    // [START shared]
    // Set up once, before the threads start; only read afterwards.
    CORVIDA_KV::CorvidaKVApi kv;
    std::unique_ptr<AesSivCipherSuite> suite(new AesSivCipherSuite("cards"));
    suite->Init(kCardsKey);
    kv.AddCipherSuite(std::move(suite));

    std::vector<std::string> expected;  // the keys, built in this thread
    std::unique_ptr<tagtbl_idl> idl(new tagtbl_idl);
    for (int i = 0; i < kThreads * kCardsPerThread; ++i) expected.push_back(CardKey(kv, i, idl.get(), &log));

    // Each thread: its own messages, key buffers and tagtbl_idl.
    std::atomic<int> mismatches(0);
    std::vector<std::thread> workers;
    for (int t = 0; t < kThreads; ++t) {
        workers.emplace_back([&kv, &log, &expected, &mismatches, t] {
            std::unique_ptr<tagtbl_idl> own_idl(new tagtbl_idl);
            for (int i = t * kCardsPerThread; i < (t + 1) * kCardsPerThread; ++i) {
                if (CardKey(kv, i, own_idl.get(), &log) != expected[i]) ++mismatches;
            }
        });
    }
    for (std::thread& worker : workers) worker.join();
    Expect(mismatches == 0 && !expected[0].empty(), "every thread builds the same keys");
    // [END shared]

    return ExitStatus();
}

// Logging: a category with a sink of its own, the lines an operation writes
// at each priority, and the bounds that narrow a category to a window of
// priorities.
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "expect.h"
#include "guide.pb.h"
#include "protobuf_api/protobuf_util.h"

namespace {

// [START sink]
// What the sink keeps: "priority function: message" lines and the file texts.
struct Captured {
    std::vector<std::string> lines;
    std::set<std::string> files;
};

// A sink receives one complete message per call, without a trailing newline.
void Capture(void* ctx, const PLOGEVENT* event, const char* msg, size_t len) {
    Captured* captured = static_cast<Captured*>(ctx);
    captured->lines.push_back(std::string(plog_priority_name(event->iPriority)) + " " + event->pszFunc + ": " +
                              std::string(msg, len));
    captured->files.insert(event->pszFile);
}
// [END sink]

}  // namespace

int main() {
    std::unique_ptr<tagtbl_idl> idl(new tagtbl_idl);
    CORVIDA_KV::CorvidaKVApi kv;
    bank::Account account;
    account.set_region(3);
    account.set_account_id(300);
    account.add_tags("gold");
    account.ByteSizeLong();
    uint8_t key[1024];
    int32_t size = sizeof(key);

    // [START category]
    Captured captured;
    PLOGCATEGORYINST log;
    plog_category_init(&log, "bank", PLOG_PRIORITY_TRACE);  // lines of priority 800 and below are written
    log.pfnWrite = &Capture;                                // without a sink: one line each to stderr
    log.pvWriteCtx = &captured;
    // [END category]

    // [START key-trace]
    int ret = PROTOBUF_UTIL::ProtobufUtil::ExtractMsgKey(&kv, account, key, size, idl.get(), &log, true);
    Expect(
        ret == 0 && captured.lines == std::vector<std::string>({
                                          "trace ExtractMsgKey: field:region bCheck:1 byte count before:0, after:2",
                                          "trace ExtractMsgKey: field:account_id bCheck:1 byte count before:2, after:5",
                                          "trace ExtractMsgKey: msg key len(5)",
                                          "trace ExtractMsgKey: 0000: 08 03 10 ac 02",
                                      }),
        "the trace lines of a key");
    Expect(captured.files == std::set<std::string>({"corvida/src/protobuf_api/protobuf_util"}),
           "every line names the same file text");
    // [END key-trace]

    // [START error-line]
    captured.lines.clear();
    log.iPriority = PLOG_PRIORITY_ERROR;  // failures only
    std::unique_ptr<ProtobufValueSet_> values(new ProtobufValueSet_);
    values->construct();
    std::set<std::string> no_keys;
    ret = PROTOBUF_UTIL::FillValueSetWithMsg(&account, no_keys, {"tags"}, *values, &log);
    Expect(ret == CorvErrCode::API_ERR_UNSUPPORT_FIELD_TYPE &&
               captured.lines == std::vector<std::string>({
                                     "error FillValueSetWithMsg: field tags is repeated type, unsupported.",
                                 }),
           "the error line of a refused path");
    // [END error-line]

    // [START bounds]
    captured.lines.clear();
    log.iPriority = PLOG_PRIORITY_TRACE;
    int low = PLOG_PRIORITY_DEBUG;  // skip every line above 700: no trace lines
    log.piPriorityLow = &low;
    ret = PROTOBUF_UTIL::FillValueSetWithMsg(&account, no_keys, {"region"}, *values, &log);
    Expect(ret == 0 && captured.lines == std::vector<std::string>({
                                             "debug FillValueSetWithMsg: field #1, tagpath:1.",
                                         }),
           "a lower bound of 700 keeps the debug lines");
    int high = PLOG_PRIORITY_DEBUG;  // skip every line below 700: no error lines
    log.piPriorityHigh = &high;
    captured.lines.clear();
    ret = PROTOBUF_UTIL::FillValueSetWithMsg(&account, no_keys, {"tags"}, *values, &log);
    Expect(ret == CorvErrCode::API_ERR_UNSUPPORT_FIELD_TYPE && captured.lines.empty(),
           "an upper bound of 700 drops the error line; the result stays the same");
    // [END bounds]

    return ExitStatus();
}

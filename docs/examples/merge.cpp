// Merging value-set fields into a message: replaced values, sub-messages
// created on the way, and the paths reported in failedpaths.
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "expect.h"
#include "guide.pb.h"
#include "protobuf_api/protobuf_util.h"

using CorvidaCommon::PbValueSetBuffer;

int main() {
    PLOGCATEGORYINST log;
    plog_category_init(&log, "guide", PLOG_PRIORITY_ERROR);

    // [START merge]
    // Fields as the service returns them: a tag path and the field's bytes.
    std::vector<PbValueSetBuffer::Field> fields = {
        {0, "5", "\x28\xe2\x09", 3, -1},    // balance = 1250
        {1, "4.1", "\x0a\x04Lyon", 6, -1},  // home.city = "Lyon"
    };
    bank::Account account;
    account.set_balance(99);  // replaced, not merged onto
    std::set<std::string> failedpaths;
    int ret = PROTOBUF_UTIL::FillMsgFromField(fields, failedpaths, &account, nullptr, 0, &log);
    Expect(ret == 0 && failedpaths.empty(), "every field merged");
    Expect(account.balance() == 1250 && account.home().city() == "Lyon", "the values");
    // [END merge]

    // [START failedpaths]
    fields = {
        {0, "5", "\x1a\x01x", 3, -1},  // bytes of field 3 under the path of field 5
        {1, "3", "", 0, -1},           // no bytes: the field is absent
    };
    account.set_email("ann@ex.com");
    ret = PROTOBUF_UTIL::FillMsgFromField(fields, failedpaths, &account, nullptr, 0, &log);
    Expect(ret == 0, "the call succeeds...");
    Expect(failedpaths == std::set<std::string>({"5"}), "...and reports the path it could not merge");
    Expect(account.balance() == 0 && account.email().empty(), "both fields are left cleared");
    // [END failedpaths]

    // [START encrypted]
    // holder (bytes) is marked corvida_crypto: merged as it came, always reported.
    bank::Card card;
    fields = {{0, "3", "\x1a\x03\x8f\x11\x5e", 5, -1}};
    failedpaths.clear();
    ret = PROTOBUF_UTIL::FillMsgFromField(fields, failedpaths, &card, nullptr, 0, &log);
    Expect(ret == 0 && failedpaths == std::set<std::string>({"3"}) && card.holder() == "\x8f\x11\x5e",
           "an encrypted bytes field is merged as it came and listed");
    // [END encrypted]

    // [START utf8]
    // Bytes that are not UTF-8 do not parse into a proto3 string field.
    fields = {{0, "3", "\x1a\x02\xff\xfe", 4, -1}};
    failedpaths.clear();
    ret = PROTOBUF_UTIL::FillMsgFromField(fields, failedpaths, &account, nullptr, 0, &log);
    Expect(ret == 0 && failedpaths == std::set<std::string>({"3"}) && account.email().empty(),
           "a string field refuses bytes that are not UTF-8");
    // [END utf8]

    // [START stops]
    fields = {
        {0, "5", "\x28\x07", 2, -1},   // balance = 7
        {1, "99", "\x08\x01", 2, -1},  // Account has no field 99
        {2, "1", "\x08\x02", 2, -1},   // never reached
    };
    failedpaths.clear();
    ret = PROTOBUF_UTIL::FillMsgFromField(fields, failedpaths, &account, nullptr, 0, &log);
    Expect(ret == CorvErrCode::GEN_ERR_INVALID_ARGUMENTS, "a path that names no field stops the merge");
    Expect(account.balance() == 7 && account.region() == 0, "what was merged before it stays");
    // [END stops]

    return ExitStatus();
}

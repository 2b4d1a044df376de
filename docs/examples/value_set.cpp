// Value sets of the guide's Account table: cutting fields by dotted path,
// the records this produces, the paths that are refused, and the packed form
// in which a set travels.
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "expect.h"
#include "guide.pb.h"
#include "protobuf_api/protobuf_util.h"

using CorvidaCommon::PbValueSetBuffer;

namespace {

bool BytesAre(const PbValueSetBuffer::Field& field, const std::string& expected) {
    return field.buf_len == static_cast<int>(expected.size()) &&
           std::memcmp(field.buf, expected.data(), expected.size()) == 0;
}

bank::Account SampleAccount() {
    bank::Account account;
    account.set_region(3);
    account.set_account_id(300);
    account.mutable_home()->set_city("Lyon");
    account.set_balance(1250);
    account.add_tags("gold");
    return account;
}

// Fills a value set from a copy of the sample account with the given paths.
int Cut(const std::set<std::string>& paths, ProtobufValueSet_& values, LPPLOGCATEGORYINST log) {
    bank::Account account = SampleAccount();
    account.ByteSizeLong();
    std::set<std::string> key_names;
    PROTOBUF_UTIL::ProtobufUtil::GetMsgKeyNames(account, key_names);
    return PROTOBUF_UTIL::FillValueSetWithMsg(&account, key_names, paths, values, log);
}

}  // namespace

int main() {
    PLOGCATEGORYINST log;
    plog_category_init(&log, "guide", PLOG_PRIORITY_ERROR);

    // [START cut]
    bank::Account account = SampleAccount();
    account.ByteSizeLong();  // value sets are written with cached sizes

    std::set<std::string> key_names;  // {"account_id", "region"}
    PROTOBUF_UTIL::ProtobufUtil::GetMsgKeyNames(account, key_names);

    std::unique_ptr<ProtobufValueSet_> values(new ProtobufValueSet_);  // ~44 MB: never on the stack
    values->construct();
    int ret = PROTOBUF_UTIL::FillValueSetWithMsg(&account, key_names, {"region", "home.city", "balance", "email"},
                                                 *values, &log);
    Expect(ret == 0, "FillValueSetWithMsg");

    // Read the records back: one per path in the paths' byte order, the key
    // field region left out. Each holds the field's own tag, then its value.
    PbValueSetBuffer reader(values.get(), values->iVersion_, &log);
    std::vector<PbValueSetBuffer::Field> fields;  // borrow the set's storage
    ret = reader.GetFields(fields);
    Expect(ret == 0 && fields.size() == 3, "three records");
    Expect(std::strcmp(fields[0].path, "5") == 0 && BytesAre(fields[0], "\x28\xe2\x09"),  // balance = 1250
           "balance: tag 5 << 3 | 0, then the varint of 1250");
    Expect(std::strcmp(fields[1].path, "3") == 0 && fields[1].buf_len == 0,  // email is not set
           "email: an unset field gives an empty record");
    Expect(std::strcmp(fields[2].path, "4.1") == 0 && BytesAre(fields[2], "\x0a\x04Lyon"),  // home.city
           "home.city: field 1 of field 4, length-delimited");
    // [END cut]

    // [START refused]
    Expect(Cut({"home", "home.city"}, *values, &log) == CorvErrCode::GEN_ERR_INVALID_ARGUMENTS,
           "a path that is the leading part of another");
    Expect(Cut({"tags"}, *values, &log) == CorvErrCode::API_ERR_UNSUPPORT_FIELD_TYPE, "a repeated field");
    Expect(Cut({"limits"}, *values, &log) == CorvErrCode::API_ERR_UNSUPPORT_FIELD_TYPE, "a map (repeated too)");
    Expect(Cut({"nickname"}, *values, &log) == CorvErrCode::GEN_ERR_INVALID_ARGUMENTS, "an unknown name");
    Expect(Cut({"balance.cents"}, *values, &log) == CorvErrCode::GEN_ERR_INVALID_ARGUMENTS,
           "a name below a field that is not a message");
    Expect(Cut({std::string(1024, 'x')}, *values, &log) == CorvErrCode::GEN_ERR_INVALID_ARGUMENTS,
           "a path of 1024 characters or more");
    // [END refused]

    // [START limits]
    std::set<std::string> many;
    for (int i = 0; i < 257; ++i) many.insert("f" + std::to_string(i));
    Expect(Cut(many, *values, &log) == CorvErrCode::GEN_ERR_INVALID_ARGUMENTS, "more than 256 paths");
    std::string deep = "home";
    for (int i = 1; i < 33; ++i) deep += ".city";
    Expect(Cut({deep}, *values, &log) == CorvErrCode::GEN_ERR_INVALID_ARGUMENTS, "more than 32 names");

    bank::Account huge = SampleAccount();
    huge.mutable_home()->set_city(std::string(CORVIDA_PROTOBUF_MAX_VALUE_BUF, 'x'));  // 10,200,000 bytes
    huge.ByteSizeLong();
    ret = PROTOBUF_UTIL::FillValueSetWithMsg(&huge, key_names, {"home.city"}, *values, &log);
    PbValueSetBuffer huge_reader(values.get(), values->iVersion_, &log);
    PbValueSetBuffer::Field cut_short = {};
    huge_reader.GetField(0, cut_short);
    Expect(ret == 0 && cut_short.buf_len < static_cast<int>(huge.home().city().size()),
           "a field that does not fit in the set is cut short, not refused");
    // [END limits]

    // [START transport]
    Expect(Cut({"balance", "home.city"}, *values, &log) == 0, "cut again");
    std::vector<char> wire(values->packedSize());  // only the bytes in use
    size_t used = 0;
    ret = values->pack(wire.data(), wire.size(), &used);
    Expect(ret == 0 && used == wire.size(), "pack");

    std::unique_ptr<ProtobufValueSet_> received(new ProtobufValueSet_);
    received->construct();
    ret = received->unpack(wire.data(), wire.size(), &used);  // refuses malformed input with a negative result
    PbValueSetBuffer received_reader(received.get(), received->iVersion_, &log);
    Expect(ret == 0 && received_reader.GetFieldNum() == 2, "unpack");
    // [END transport]

    return ExitStatus();
}

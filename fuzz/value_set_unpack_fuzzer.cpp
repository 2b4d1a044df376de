// A packed value set as it comes off the network: ProtobufValueSet_::unpack,
// then the fields read through PbValueSetBuffer::GetFields in both layouts and
// merged into a proto2 and a proto3 table with FillMsgFromField.
//
// Checks, besides the sanitizers: unpack accepts or refuses with one of its
// documented results; an accepted set packs back to exactly the bytes it was
// read from; a refused one is left empty; every field read lies inside the
// set.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "protobuf_api/protobuf_util.h"
#include "tables2.pb.h"
#include "tables3.pb.h"

namespace {

using CorvidaCommon::PbValueSetBuffer;

// One set for the whole run: it is 44 MB, and unpack touches only the bytes
// the input carries.
ProtobufValueSet_* SharedSet() {
    static ProtobufValueSet_* set = new ProtobufValueSet_;
    return set;
}

bool Inside(const char* p, size_t n, const ProtobufValueSet_& set) {
    const char* begin = reinterpret_cast<const char*>(&set);
    return p >= begin && p + n <= begin + sizeof(set);
}

void MergeFields(const ProtobufValueSet_& set, int version, LPPLOGCATEGORYINST log) {
    PbValueSetBuffer reader(&set, version, log);
    std::vector<PbValueSetBuffer::Field> fields;
    const int ret = reader.GetFields(fields);
    FUZZ_CHECK(ret == 0 || ret == CorvidaCommon::PBVSB_ERR_CORRUPT);
    for (const PbValueSetBuffer::Field& field : fields) {
        FUZZ_CHECK(Inside(field.path, std::strlen(field.path) + 1, set));
        FUZZ_CHECK(field.buf_len >= 0 && Inside(field.buf, static_cast<size_t>(field.buf_len), set));
    }
    std::set<std::string> failedpaths;
    corvida::test::Player2 player2;
    PROTOBUF_UTIL::FillMsgFromField(fields, failedpaths, &player2, nullptr, 0, log);
    corvida::test3::Player3 player3;
    PROTOBUF_UTIL::FillMsgFromField(fields, failedpaths, &player3, nullptr, 0, log);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    LPPLOGCATEGORYINST log = corvida_fuzz::QuietLog();
    ProtobufValueSet_& set = *SharedSet();
    const char* input = reinterpret_cast<const char*>(data);
    size_t used = 0;
    const int ret = set.unpack(input, size, &used);
    FUZZ_CHECK(ret == 0 || ret == -2 || ret == -3 || ret == -4);
    if (ret != 0) {
        FUZZ_CHECK(set.dwFieldNum_ == 0 && set.stCompactValueSet.iFieldIndexNum == 0 &&
                   set.stCompactValueSet.iValueBufLen == 0);
        return 0;
    }
    FUZZ_CHECK(used <= size);

    // Whatever unpack accepts packs back to the same bytes.
    FUZZ_CHECK(set.packedSize() == used);
    std::unique_ptr<char[]> packed(new char[used]);
    size_t packed_len = 0;
    FUZZ_CHECK(set.pack(packed.get(), used, &packed_len) == 0);
    FUZZ_CHECK(packed_len == used && std::memcmp(packed.get(), input, used) == 0);

    std::string dump;
    set.visualize(dump);
    MergeFields(set, 0, log);
    MergeFields(set, 1, log);
    return 0;
}

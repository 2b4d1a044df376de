// The text and path operations with fuzzed input: TokenSplit, trim,
// getIndexInfo, VerifyTagPath, TransFieldNameToTagPath, and
// FillValueSetWithMsg with fuzzed path sets, key names, message contents and
// log thresholds.
//
// The small helpers are checked against their documented results. A value set
// that FillValueSetWithMsg accepts must hold one record per path that is not
// under a key field, and (when no two of its fields overlap) must survive the
// round trip: merged into a new message with FillMsgFromField and cut again,
// it gives the same records. And the straightforward cut kept in
// tests/reference, given the same, gives the same result, records, message
// and log lines.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "protobuf_api/protobuf_util.h"
#include "reference/reference.h"

namespace {

using CorvidaCommon::PbValueSetBuffer;
using google::protobuf::Message;

void CheckTokenSplitAndTrim(const std::string& source, const std::string& delimiter) {
    std::vector<std::string> tokens = {"kept"};
    PROTOBUF_UTIL::TokenSplit(source, delimiter, tokens);
    FUZZ_CHECK(tokens.front() == "kept");
    size_t delimiters = 0;
    for (char c : source) delimiters += delimiter.find(c) != std::string::npos ? 1 : 0;
    const size_t last = source.find_last_of(delimiter);
    const bool tail = last == std::string::npos ? !source.empty() : last + 1 < source.size();
    FUZZ_CHECK(tokens.size() == 1 + delimiters + (tail ? 1 : 0));
    for (size_t i = 1; i < tokens.size(); ++i) {
        std::string again = tokens[i];
        FUZZ_CHECK(PROTOBUF_UTIL::trim(again) == tokens[i]);
        FUZZ_CHECK(tokens[i].find_first_of(delimiter) == std::string::npos);
    }

    std::string trimmed = source;
    PROTOBUF_UTIL::trim(trimmed);
    const auto blank = [](char c) { return PROTOBUF_UTIL::isWhitespace(c); };
    const auto first = std::find_if_not(source.begin(), source.end(), blank);
    const auto end = std::find_if_not(source.rbegin(), source.rend(), blank).base();
    FUZZ_CHECK(trimmed == (first < end ? std::string(first, end) : std::string()));
}

void CheckIndexInfo(const std::string& source) {
    std::string name = "old name";
    std::string fields = "old fields";
    const int ret = PROTOBUF_UTIL::getIndexInfo(source, name, fields);
    const size_t open = source.find('(');
    const size_t close = source.find(')');
    if (source.empty()) {
        FUZZ_CHECK(ret == -1 && name == "old name" && fields == "old fields");
    } else if (open == std::string::npos) {
        FUZZ_CHECK(ret == -2 && name == "old name" && fields == "old fields");
    } else if (close != source.size() - 1) {
        FUZZ_CHECK(ret == -3 && name == source.substr(0, open) && fields == "old fields");
    } else {
        FUZZ_CHECK(ret == 0 && name == source.substr(0, open) && fields == source.substr(open + 1, close - open - 1));
    }
}

// VerifyTagPath as documented: -1 when an element longer than path begins
// with path's NUL-terminated text and has "." at position path.size().
int ExpectedVerify(const std::string& path, const std::set<std::string>& paths) {
    const char* text = path.c_str();
    for (const std::string& element : paths) {
        if (element.size() > path.size() && element.find(text) == 0 && element[path.size()] == '.') return -1;
    }
    return 0;
}

std::string PickDottedOrText(FuzzedDataProvider& in, const Message& table) {
    return in.ConsumeBool() ? corvida_fuzz::PickDottedPath(in, table.GetDescriptor())
                            : in.ConsumeRandomLengthString(24);
}

void CheckTransFieldName(FuzzedDataProvider& in, const Message& table, LPPLOGCATEGORYINST log) {
    std::vector<std::string> names;
    PROTOBUF_UTIL::TokenSplit(PickDottedOrText(in, table), ".", names);
    int depth = in.ConsumeIntegralInRange<int>(0, static_cast<int>(names.size()));
    const int start = depth;
    std::string tagpath;
    const int ret = PROTOBUF_UTIL::TransFieldNameToTagPath(names, tagpath, table.GetDescriptor(), depth, log);
    FUZZ_CHECK(ret == 0 || ret == CorvErrCode::API_ERR_FIELD_NOT_EXSIST);
    FUZZ_CHECK(depth >= start && depth <= static_cast<int>(names.size()));
    FUZZ_CHECK(ret != 0 || depth == static_cast<int>(names.size()));
    FUZZ_CHECK(tagpath.find_first_not_of("0123456789.") == std::string::npos);
}

// The requested paths: a few picked or raw ones, or (rarely) a run of
// distinct paths around the limit of 256.
std::set<std::string> PickPathSet(FuzzedDataProvider& in, const Message& table) {
    std::set<std::string> paths;
    if (in.ConsumeIntegralInRange<int>(0, 15) == 0) {
        const int count = in.ConsumeIntegralInRange<int>(250, 260);
        for (int i = 0; i < count; ++i) paths.insert("p" + std::to_string(i));
        return paths;
    }
    const int count = in.ConsumeIntegralInRange<int>(0, 10);
    for (int i = 0; i < count; ++i) paths.insert(PickDottedOrText(in, table));
    return paths;
}

// Three value sets for the whole run: 44 MB each, and only the bytes in use
// are touched.
ProtobufValueSet_* SharedSet(int i) {
    static ProtobufValueSet_* sets[3] = {new ProtobufValueSet_, new ProtobufValueSet_, new ProtobufValueSet_};
    return sets[i];
}

std::vector<PbValueSetBuffer::Field> ReadFields(const ProtobufValueSet_& set) {
    std::vector<PbValueSetBuffer::Field> fields;
    PbValueSetBuffer reader(&set, 1, nullptr);
    FUZZ_CHECK(reader.GetFields(fields) == 0);
    return fields;
}

bool SameRecords(const std::vector<PbValueSetBuffer::Field>& a, const std::vector<PbValueSetBuffer::Field>& b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (std::strcmp(a[i].path, b[i].path) != 0 || a[i].buf_len != b[i].buf_len ||
            std::memcmp(a[i].buf, b[i].buf, static_cast<size_t>(a[i].buf_len)) != 0) {
            return false;
        }
    }
    return true;
}

// True when the names of one path begin the names of another (or equal
// them): the fields they cut overlap.
bool Overlap(const std::vector<std::vector<std::string>>& paths) {
    for (size_t i = 0; i < paths.size(); ++i) {
        for (size_t j = 0; j < paths.size(); ++j) {
            const auto& a = paths[i];
            const auto& b = paths[j];
            if (i != j && a.size() <= b.size() && std::equal(a.begin(), a.end(), b.begin())) return true;
        }
    }
    return false;
}

void CheckFillValueSet(FuzzedDataProvider& in, const Message& table) {
    std::unique_ptr<Message> msg(table.New());
    const bool parsed = msg->ParsePartialFromString(in.ConsumeRandomLengthString(512));
    std::set<std::string> keys;
    if (in.ConsumeBool()) {
        PROTOBUF_UTIL::ProtobufUtil::GetMsgKeyNames(*msg, keys);
    } else {
        keys.insert(PickDottedOrText(in, table));
    }
    const std::set<std::string> paths = PickPathSet(in, table);
    const int threshold = corvida_fuzz::PickLogThreshold(in);
    msg->ByteSizeLong();

    std::unique_ptr<Message> reference_msg(msg->New());
    reference_msg->CopyFrom(*msg);
    reference_msg->ByteSizeLong();

    ProtobufValueSet_& cut = *SharedSet(0);
    corvida_fuzz::LineLog lines(threshold);
    const int ret = PROTOBUF_UTIL::FillValueSetWithMsg(msg.get(), keys, paths, cut, lines.category());
    FUZZ_CHECK(ret == 0 || ret == CorvErrCode::GEN_ERR_INVALID_ARGUMENTS ||
               ret == CorvErrCode::API_ERR_UNSUPPORT_FIELD_TYPE || ret == CorvErrCode::GEN_ERR_ERR);

    ProtobufValueSet_& reference = *SharedSet(2);
    corvida_fuzz::LineLog reference_lines(threshold);
    FUZZ_CHECK(corvida_reference::FillValueSetWithMsg(reference_msg.get(), keys, paths, reference,
                                                      reference_lines.category()) == ret);
    FUZZ_CHECK(SameRecords(ReadFields(reference), ReadFields(cut)));
    FUZZ_CHECK(corvida_fuzz::DeterministicBytes(*reference_msg) == corvida_fuzz::DeterministicBytes(*msg));
    FUZZ_CHECK(reference_lines.lines() == lines.lines());
    if (ret != 0) return;
    const std::vector<PbValueSetBuffer::Field> fields = ReadFields(cut);
    std::vector<std::vector<std::string>> cut_names;
    for (const std::string& p : paths) {
        std::vector<std::string> names;
        PROTOBUF_UTIL::TokenSplit(p, ".", names);
        if (keys.count(names.at(0)) == 0) cut_names.push_back(names);
    }
    FUZZ_CHECK(fields.size() == cut_names.size());
    // A message that did not parse may hold what the merge refuses (a proto3
    // string that is not UTF-8), so only a parsed one is taken round. Nor is a
    // set whose fields overlap: the overlap test reads the path text, so
    // "stats." and "stats.hp" both pass it, and cutting the second creates the
    // sub-message that the first recorded as absent.
    if (!parsed || Overlap(cut_names)) return;

    std::unique_ptr<Message> merged(table.New());
    std::set<std::string> failedpaths;
    std::vector<PbValueSetBuffer::Field> mutable_fields = fields;
    // Under the same threshold: without debug lines the merge takes its
    // shorter way.
    corvida_fuzz::LineLog round_trip(threshold);
    FUZZ_CHECK(PROTOBUF_UTIL::FillMsgFromField(mutable_fields, failedpaths, merged.get(), nullptr, 0,
                                               round_trip.category()) == 0);
    merged->ByteSizeLong();
    ProtobufValueSet_& again = *SharedSet(1);
    FUZZ_CHECK(PROTOBUF_UTIL::FillValueSetWithMsg(merged.get(), keys, paths, again, round_trip.category()) == 0);
    FUZZ_CHECK(SameRecords(fields, ReadFields(again)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    LPPLOGCATEGORYINST log = corvida_fuzz::QuietLog();
    FuzzedDataProvider in(data, size);
    const auto& tables = corvida_fuzz::TestTables();
    const Message& table = *tables[in.ConsumeIntegralInRange<size_t>(0, tables.size() - 1)];

    const std::string source = in.ConsumeRandomLengthString(128);
    CheckTokenSplitAndTrim(source, in.ConsumeRandomLengthString(4));
    CheckIndexInfo(source);

    std::set<std::string> paths;
    const int count = in.ConsumeIntegralInRange<int>(0, 8);
    for (int i = 0; i < count; ++i) paths.insert(PickDottedOrText(in, table));
    const std::string path = paths.empty() || in.ConsumeBool() ? PickDottedOrText(in, table) : *paths.begin();
    FUZZ_CHECK(PROTOBUF_UTIL::VerifyTagPath(path, paths, log) == ExpectedVerify(path, paths));

    CheckTransFieldName(in, table, log);
    CheckFillValueSet(in, table);
    return 0;
}

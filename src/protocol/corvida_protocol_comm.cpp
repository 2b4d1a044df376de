#include "protocol/corvida_protocol_comm.h"

#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

// Width of one packed integer.
constexpr size_t kIntBytes = 4;

// Bytes of a field or entry that visualize() shows before abbreviating.
constexpr size_t kVisualizeBytes = 64;

// Appends big-endian integers and raw bytes to a buffer whose size the
// caller has already checked.
class Writer {
public:
    explicit Writer(char* buf) : m_begin(buf), m_pos(buf) {}

    void U32(uint32_t v) {
        m_pos[0] = static_cast<char>(v >> 24);
        m_pos[1] = static_cast<char>(v >> 16);
        m_pos[2] = static_cast<char>(v >> 8);
        m_pos[3] = static_cast<char>(v);
        m_pos += kIntBytes;
    }
    void I32(int32_t v) { U32(static_cast<uint32_t>(v)); }
    void Bytes(const char* data, size_t n) {
        if (n > 0) std::memcpy(m_pos, data, n);
        m_pos += n;
    }
    size_t written() const { return static_cast<size_t>(m_pos - m_begin); }

private:
    char* m_begin;
    char* m_pos;
};

// Reads big-endian integers and raw bytes, refusing to go past the end of
// the input.
class Reader {
public:
    Reader(const char* buf, size_t size) : m_pos(buf), m_left(size), m_size(size) {}

    bool U32(uint32_t* v) {
        if (m_left < kIntBytes) return false;
        const unsigned char* p = reinterpret_cast<const unsigned char*>(m_pos);
        *v = (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | uint32_t{p[3]};
        Skip(kIntBytes);
        return true;
    }
    bool I32(int32_t* v) {
        uint32_t u = 0;
        if (!U32(&u)) return false;
        *v = static_cast<int32_t>(u);
        return true;
    }
    // Points *data at the next n bytes of the input and skips them.
    bool Bytes(size_t n, const char** data) {
        if (m_left < n) return false;
        *data = m_pos;
        Skip(n);
        return true;
    }
    size_t consumed() const { return m_size - m_left; }

private:
    void Skip(size_t n) {
        m_pos += n;
        m_left -= n;
    }

    const char* m_pos;
    size_t m_left;
    size_t m_size;
};

// Results of unpack(), as documented in the header.
enum {
    kUnpackNullArgument = -1,
    kUnpackTruncated = -2,
    kUnpackTooLarge = -3,
    kUnpackOutOfRange = -4,
};

// Length of a stored tag path, or CORVIDA_PROTOBUF_MAX_TAG_PATH when it has
// no NUL inside its buffer.
size_t TagPathLength(const ProtobufValueField_& field) {
    const void* nul = std::memchr(field.szTagPath_, '\0', sizeof(field.szTagPath_));
    return nul == nullptr ? sizeof(field.szTagPath_)
                          : static_cast<size_t>(static_cast<const char*>(nul) - field.szTagPath_);
}

// An index entry lies inside the first value_buf_len bytes of the buffer.
bool EntryInside(const FieldIndex& entry, int32_t value_buf_len) {
    return entry.iOffset >= 0 && entry.iSize >= 0 &&
           int64_t{entry.iOffset} + int64_t{entry.iSize} <= int64_t{value_buf_len};
}

// Adds to *size the packed bytes of the version-0 fields; false when a
// count or length exceeds its array.
bool AddFieldsSize(const ProtobufValueSet_& set, size_t* size) {
    if (set.dwFieldNum_ > CORVIDA_PROTOBUF_MAX_FIELD_NUM_V0) return false;
    for (uint32_t i = 0; i < set.dwFieldNum_; ++i) {
        const ProtobufValueField_& field = set.astFields_[i];
        const size_t path_len = TagPathLength(field);
        if (path_len >= CORVIDA_PROTOBUF_MAX_TAG_PATH) return false;
        if (field.dwFieldLen_ > CORVIDA_PROTOBUF_MAX_FIELD_BUFF) return false;
        *size += 3 * kIntBytes + path_len + field.dwFieldLen_;
    }
    return true;
}

// Adds to *size the packed bytes of the compact form; false when a count is
// out of range or an entry points outside the value buffer.
bool AddCompactSize(const CompactValueSet& compact, size_t* size) {
    if (compact.iFieldIndexNum < 0 || compact.iFieldIndexNum > CORVIDA_PROTOBUF_MAX_FIELD_INDEX_NUM) return false;
    if (compact.iValueBufLen < 0 || compact.iValueBufLen > CORVIDA_PROTOBUF_MAX_VALUE_BUF) return false;
    for (int32_t i = 0; i < compact.iFieldIndexNum; ++i) {
        if (!EntryInside(compact.astFieldIndexs[i], compact.iValueBufLen)) return false;
    }
    *size += kIntBytes + 3 * kIntBytes * static_cast<size_t>(compact.iFieldIndexNum) + kIntBytes +
             static_cast<size_t>(compact.iValueBufLen);
    return true;
}

int UnpackField(Reader& in, ProtobufValueField_* field) {
    uint32_t path_len = 0;
    const char* path = nullptr;
    if (!in.U32(&path_len)) return kUnpackTruncated;
    if (path_len >= CORVIDA_PROTOBUF_MAX_TAG_PATH) return kUnpackTooLarge;
    if (!in.Bytes(path_len, &path)) return kUnpackTruncated;
    if (std::memchr(path, '\0', path_len) != nullptr) return kUnpackOutOfRange;
    std::memcpy(field->szTagPath_, path, path_len);
    field->szTagPath_[path_len] = '\0';

    uint32_t field_len = 0;
    const char* bytes = nullptr;
    if (!in.U32(&field->dwWireType_) || !in.U32(&field_len)) return kUnpackTruncated;
    if (field_len > CORVIDA_PROTOBUF_MAX_FIELD_BUFF) return kUnpackTooLarge;
    if (!in.Bytes(field_len, &bytes)) return kUnpackTruncated;
    if (field_len > 0) std::memcpy(field->szFieldBuff_, bytes, field_len);
    field->dwFieldLen_ = field_len;
    return 0;
}

int UnpackFields(Reader& in, ProtobufValueSet_* set) {
    uint32_t num = 0;
    if (!in.I32(&set->iVersion_) || !in.U32(&num)) return kUnpackTruncated;
    if (num > CORVIDA_PROTOBUF_MAX_FIELD_NUM_V0) return kUnpackTooLarge;
    for (uint32_t i = 0; i < num; ++i) {
        const int ret = UnpackField(in, &set->astFields_[i]);
        if (ret != 0) return ret;
    }
    set->dwFieldNum_ = num;
    return 0;
}

int UnpackCompact(Reader& in, CompactValueSet* compact) {
    int32_t num = 0;
    if (!in.I32(&num)) return kUnpackTruncated;
    if (num < 0 || num > CORVIDA_PROTOBUF_MAX_FIELD_INDEX_NUM) return kUnpackTooLarge;
    for (int32_t i = 0; i < num; ++i) {
        FieldIndex& entry = compact->astFieldIndexs[i];
        if (!in.I32(&entry.iOffset) || !in.I32(&entry.iSize) || !in.I32(&entry.iFlag)) return kUnpackTruncated;
    }
    int32_t value_buf_len = 0;
    const char* bytes = nullptr;
    if (!in.I32(&value_buf_len)) return kUnpackTruncated;
    if (value_buf_len < 0 || value_buf_len > CORVIDA_PROTOBUF_MAX_VALUE_BUF) return kUnpackTooLarge;
    if (!in.Bytes(static_cast<size_t>(value_buf_len), &bytes)) return kUnpackTruncated;
    for (int32_t i = 0; i < num; ++i) {
        if (!EntryInside(compact->astFieldIndexs[i], value_buf_len)) return kUnpackOutOfRange;
    }
    if (value_buf_len > 0) std::memcpy(compact->szValueBuf, bytes, static_cast<size_t>(value_buf_len));
    compact->iFieldIndexNum = num;
    compact->iValueBufLen = value_buf_len;
    return 0;
}

void AppendF(std::string& out, const char* format, ...) __attribute__((format(printf, 2, 3)));

void AppendF(std::string& out, const char* format, ...) {
    char line[256];
    va_list args;
    va_start(args, format);
    const int n = std::vsnprintf(line, sizeof(line), format, args);
    va_end(args);
    if (n > 0) out.append(line, static_cast<size_t>(n) < sizeof(line) ? static_cast<size_t>(n) : sizeof(line) - 1);
}

// Appends " data:" and the bytes in hex, at most kVisualizeBytes of them.
void AppendHex(std::string& out, const char* data, size_t len) {
    static const char kDigits[] = "0123456789abcdef";
    const size_t shown = len < kVisualizeBytes ? len : kVisualizeBytes;
    out += " data:";
    for (size_t i = 0; i < shown; ++i) {
        const unsigned char byte = static_cast<unsigned char>(data[i]);
        out += kDigits[byte >> 4];
        out += kDigits[byte & 0xf];
    }
    if (shown < len) AppendF(out, "...(%zu more)", len - shown);
}

// Entries of an array that a dump shows: the count, capped at the array.
size_t ShownCount(int64_t count, size_t capacity) {
    if (count < 0) return 0;
    return static_cast<uint64_t>(count) < capacity ? static_cast<size_t>(count) : capacity;
}

void VisualizeFields(const ProtobufValueSet_& set, std::string& out) {
    AppendF(out, "fields:%" PRIu32 "%s\n", set.dwFieldNum_,
            set.dwFieldNum_ > CORVIDA_PROTOBUF_MAX_FIELD_NUM_V0 ? " (exceeds 128)" : "");
    const size_t shown = ShownCount(set.dwFieldNum_, CORVIDA_PROTOBUF_MAX_FIELD_NUM_V0);
    for (size_t i = 0; i < shown; ++i) {
        const ProtobufValueField_& field = set.astFields_[i];
        const size_t path_len = TagPathLength(field);
        // A path can be far longer than AppendF's line, so it goes in whole.
        AppendF(out, "  [%zu] path:", i);
        out.append(field.szTagPath_, path_len);
        if (path_len >= CORVIDA_PROTOBUF_MAX_TAG_PATH) out += "(unterminated)";
        AppendF(out, " wire:%" PRIu32 " len:%" PRIu32, field.dwWireType_, field.dwFieldLen_);
        if (field.dwFieldLen_ > CORVIDA_PROTOBUF_MAX_FIELD_BUFF) {
            out += " (exceeds 262144)";
        } else {
            AppendHex(out, field.szFieldBuff_, field.dwFieldLen_);
        }
        out += '\n';
    }
}

void VisualizeCompact(const CompactValueSet& compact, std::string& out) {
    const bool num_ok =
        compact.iFieldIndexNum >= 0 && compact.iFieldIndexNum <= CORVIDA_PROTOBUF_MAX_FIELD_INDEX_NUM;
    const bool buf_ok = compact.iValueBufLen >= 0 && compact.iValueBufLen <= CORVIDA_PROTOBUF_MAX_VALUE_BUF;
    AppendF(out, "compact: index_num:%" PRId32 "%s value_buf_len:%" PRId32 "%s\n", compact.iFieldIndexNum,
            num_ok ? "" : " (out of range)", compact.iValueBufLen, buf_ok ? "" : " (out of range)");
    const size_t shown = ShownCount(compact.iFieldIndexNum, CORVIDA_PROTOBUF_MAX_FIELD_INDEX_NUM);
    for (size_t i = 0; i < shown; ++i) {
        const FieldIndex& entry = compact.astFieldIndexs[i];
        AppendF(out, "  [%zu] offset:%" PRId32 " size:%" PRId32 " flag:%" PRId32, i, entry.iOffset, entry.iSize,
                entry.iFlag);
        if (buf_ok && EntryInside(entry, compact.iValueBufLen)) {
            AppendHex(out, compact.szValueBuf + entry.iOffset, static_cast<size_t>(entry.iSize));
        } else {
            out += " (outside the value buffer)";
        }
        out += '\n';
    }
}

}  // namespace

void ProtobufValueField_::construct() {
    szTagPath_[0] = '\0';
    dwWireType_ = 0;
    dwFieldLen_ = 0;
}

void FieldIndex::construct() {
    iOffset = 0;
    iSize = 0;
    iFlag = 0;
}

void CompactValueSet::construct() {
    iFieldIndexNum = 0;
    iValueBufLen = 0;
}

void ProtobufValueSet_::construct() {
    iVersion_ = 0;
    dwFieldNum_ = 0;
    iEncodeType = 0;
    stCompactValueSet.construct();
}

size_t ProtobufValueSet_::packedSize() const {
    size_t size = 2 * kIntBytes + kIntBytes;  // iVersion_, dwFieldNum_, iEncodeType
    if (!AddFieldsSize(*this, &size) || !AddCompactSize(stCompactValueSet, &size)) return 0;
    return size;
}

int ProtobufValueSet_::pack(char* buf, size_t size, size_t* used) const {
    if (buf == nullptr || used == nullptr) return -1;
    const size_t needed = packedSize();
    if (needed == 0) return -3;
    if (size < needed) return -2;

    Writer out(buf);
    out.I32(iVersion_);
    out.U32(dwFieldNum_);
    for (uint32_t i = 0; i < dwFieldNum_; ++i) {
        const ProtobufValueField_& field = astFields_[i];
        const size_t path_len = TagPathLength(field);
        out.U32(static_cast<uint32_t>(path_len));
        out.Bytes(field.szTagPath_, path_len);
        out.U32(field.dwWireType_);
        out.U32(field.dwFieldLen_);
        out.Bytes(field.szFieldBuff_, field.dwFieldLen_);
    }
    out.I32(iEncodeType);
    const CompactValueSet& compact = stCompactValueSet;
    out.I32(compact.iFieldIndexNum);
    for (int32_t i = 0; i < compact.iFieldIndexNum; ++i) {
        out.I32(compact.astFieldIndexs[i].iOffset);
        out.I32(compact.astFieldIndexs[i].iSize);
        out.I32(compact.astFieldIndexs[i].iFlag);
    }
    out.I32(compact.iValueBufLen);
    out.Bytes(compact.szValueBuf, static_cast<size_t>(compact.iValueBufLen));
    *used = out.written();
    return 0;
}

int ProtobufValueSet_::unpack(const char* buf, size_t size, size_t* used) {
    construct();
    if (buf == nullptr || used == nullptr) return kUnpackNullArgument;
    Reader in(buf, size);
    int ret = UnpackFields(in, this);
    if (ret == 0 && !in.I32(&iEncodeType)) ret = kUnpackTruncated;
    if (ret == 0) ret = UnpackCompact(in, &stCompactValueSet);
    if (ret != 0) {
        construct();
        return ret;
    }
    *used = in.consumed();
    return 0;
}

void ProtobufValueSet_::visualize(std::string& out) const {
    AppendF(out, "ProtobufValueSet_ version:%" PRId32 " encode:%" PRId32 "\n", iVersion_, iEncodeType);
    VisualizeFields(*this, out);
    VisualizeCompact(stCompactValueSet, out);
}

// The protobuf bridge: application messages to the service's records and back.
//
// A table is a protobuf message type whose options (corvidaservice.optionv1.proto)
// name its primary key, indexes, sharding key and cipher suite. This header
// declares every operation of the bridge:
//
//   - record keys: ProtobufUtil::ExtractMsgKey, ExtractFieldKey, GetMsgKeyNames
//     and the key field serializer SerializeFieldWithCachedSizesEx;
//   - value sets: TransFieldNameToTagPath, ConcatFieldPath, VerifyTagPath,
//     FillValueSetWithMsg (cut fields of a message into a value set) and
//     FillMsgFromField (merge returned fields back into a message);
//   - server schema: FillMessageGroup, FetchShardingKey, CompareMessageMeta,
//     GetMetaAndCompare, with MsgDescGroup and ParseErrorCollector;
//   - query results: FieldValue2GenericValue;
//   - text helpers: TokenSplit, trim, isWhitespace, getIndexInfo.
//
// Conventions shared by all operations:
//   - Results: 0 is success; callers treat every non-zero result as failure.
//     Named codes come from common/corvida_error_code.h; other failures are
//     small literal negative numbers documented with each operation.
//     FillMessageGroup returns a descriptor pointer instead, null on failure.
//   - No exception leaves an operation.
//   - Partial output is never rolled back: after a failure the caller discards
//     key bytes, value-set fields or merged message fields.
//   - Logging: each operation takes the caller's log category. A line of
//     priority P is skipped when the category's lower bound is set and below
//     P, or its upper bound is set and above P; otherwise
//     plog_category_can_write decides. Arguments of a skipped line are never
//     evaluated, and results never depend on whether a line was written. A
//     category must answer the same throughout one call, but for changes its
//     sink or a cipher suite makes (plog/plog.h).
//     Priorities: 300 failures, 700 schema loading and path progress, 800
//     values, byte counts and keys. Every line carries the file text
//     "corvida/src/protobuf_api/protobuf_util", the line and the function name.
//   - Ownership: the caller owns every message, descriptor, buffer, record,
//     value set and log category passed in. Cipher suites are borrowed from
//     CorvidaKVApi for one call. Only FillMessageGroup leaves objects behind,
//     owned by the caller's MsgDescGroup.
//   - Threads: no operation keeps state between calls; calls may run
//     concurrently as long as they share no output object (message, value set,
//     group, output set or key buffer). Descriptor pools are only read once
//     built, and a filled MsgDescGroup may be read from many threads.
#ifndef CORVIDA_PROTOBUF_API_PROTOBUF_UTIL_H_
#define CORVIDA_PROTOBUF_API_PROTOBUF_UTIL_H_

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor_database.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/message.h>

#include "common/corvida_error_code.h"
#include "common/corvida_service_field.h"
#include "common/pb_value_set_buffer.h"
#include "plog/plog.h"
#include "protobuf_api/cipher_suite_base.h"
#include "protobuf_api/corvida_kv_api.h"
#include "protobuf_api/corvida_protobuf_define.h"
#include "protocol/corvida_protocol_comm.h"
#include "protocol/idl_tbl.h"

namespace PROTOBUF_UTIL {

using CORVIDA_KV::CorvidaKVApi;

// ---------------------------------------------------------------------------
// Text helpers. No state, no log category, no log lines.
// ---------------------------------------------------------------------------

// The isspace classification of c taken as unsigned char (blank, tab, line
// feed, vertical tab, form feed, carriage return in the default locale).
bool isWhitespace(char c);

// Strips leading and trailing white space from s in place; inner white space
// stays. Returns s.
std::string& trim(std::string& s);

// Cuts source at any character of delimiter (a set of characters, not a
// separator string) and appends the trimmed tokens to vec, which is never
// cleared. Empty tokens between two delimiters and before a leading delimiter
// are kept; a trailing delimiter adds no token; a tail of white space alone
// adds one empty token.
void TokenSplit(const std::string& source, const std::string& delimiter, std::vector<std::string>& vec);

// Splits one index declaration "name(fields)". Returns 0 with indexName = the
// text before the first "(" and indexFields = the text between it and the
// first ")" (both untrimmed); -1 when source is empty and -2 when it has no
// "(" (outputs untouched); -3 when the first ")" is missing or not the last
// character (indexName is already overwritten then, indexFields untouched).
int getIndexInfo(const std::string& source, std::string& indexName, std::string& indexFields);

// ---------------------------------------------------------------------------
// Record keys.
// ---------------------------------------------------------------------------

// Orders field descriptors by ascending field number. A null pointer is never
// less than anything and nothing is less than a null pointer. m_vecFieldDesc
// refers to the vector being sorted and is not consulted by the comparison.
struct _FieldDescPtrFunctor {
    _FieldDescPtrFunctor(const std::vector<const google::protobuf::FieldDescriptor*>& vecFieldDesc)
        : m_vecFieldDesc(vecFieldDesc) {}

    bool operator()(const google::protobuf::FieldDescriptor* a, const google::protobuf::FieldDescriptor* b) const {
        return a != nullptr && b != nullptr && a->number() < b->number();
    }

    const std::vector<const google::protobuf::FieldDescriptor*>& m_vecFieldDesc;
};

class ProtobufUtil {
public:
    // Writes the primary key of msg into buf: the fields named by the
    // message option corvida_primary_key, in ascending field-number order,
    // each as its protobuf encoding; string and bytes fields marked
    // corvida_crypto as the table cipher suite's ciphertext under the field's
    // own tag. A proto3 key field holding its default value still contributes
    // its tag and value.
    //
    // size carries the capacity of buf in and the key length out. idl is
    // scratch space for ciphertext and must be non-null even when nothing is
    // encrypted. With bCheck, every key field must add at least one byte.
    // Cached sizes are used as they stand: when a key field is a message, call
    // msg.ByteSizeLong() first.
    //
    // Results (size is written only on 0 and -10):
    //    0  success; size = key length
    //   -1  idl, msg's descriptor or log null (nothing logged)
    //   -2  no reflection
    //   -3  the named cipher suite is unknown to pKVApi
    //   -4  the suite's key MD5 differs from corvida_cipher_md5
    //   -5  a name of corvida_primary_key is not a field (nothing logged)
    //   -6  an encrypted key field but no cipher suite named (nothing logged)
    //   -7  the suite failed to encrypt, or an encrypted key field is
    //       repeated (nothing logged)
    //   -9  bCheck and a key field added no bytes
    //  -10  key longer than 1022 bytes; size = the full length
    // On failure the bytes already written stay in buf and must be ignored.
    // Give buf at least 1022 bytes. Writing stops at the end of a smaller
    // one; size then still tells the key's whole length (more than the
    // capacity, and -10 beyond 1022 bytes), unless bCheck first finds a field
    // that added no bytes to the full buffer (-9).
    static int ExtractMsgKey(CorvidaKVApi* pKVApi, const google::protobuf::Message& msg, uint8_t* buf,
                             int32_t& size, tagtbl_idl* idl, LPPLOGCATEGORYINST log, bool bCheck);

    // Inserts the names of corvida_primary_key of msg's type into setKeyNames
    // (not cleared first). Returns 0; -1 when msg has no descriptor; -2 when a
    // name is not a field (names before it stay inserted). Logs nothing.
    static int GetMsgKeyNames(const google::protobuf::Message& msg, std::set<std::string>& setKeyNames);

    // Writes the fields numbered in vecFields, in the caller's order, into buf
    // with the encryption, default-value and length rules of ExtractMsgKey.
    // An unknown number is logged and skipped; every written field must add
    // at least one byte. Results, size and buf on failure as ExtractMsgKey,
    // without -5.
    static int ExtractFieldKey(CorvidaKVApi* pKVApi, const google::protobuf::Message& msg,
                               const std::vector<int>& vecFields, uint8_t* buf, int32_t& size,
                               tagtbl_idl* idl, LPPLOGCATEGORYINST log);

    // Appends the encoding of field of message to output, exactly as
    // protobuf's WireFormat::SerializeFieldWithCachedSizes does, except that
    // a singular field of a proto3 message that is not set is written once
    // with its default value (an absent sub-message as an empty one). Map
    // entries are sorted by key only when output asks for deterministic
    // serialization. Sub-messages are written with their cached sizes.
    // A full output is not reported here: check output->HadError() or its
    // byte count.
    static void SerializeFieldWithCachedSizesEx(const google::protobuf::FieldDescriptor* field,
                                                const google::protobuf::Message& message,
                                                google::protobuf::io::CodedOutputStream* output);
};

// ---------------------------------------------------------------------------
// Field paths and value sets.
// ---------------------------------------------------------------------------

// Resolves fieldnames[depth..] in msgDesc (recursing into message fields) and
// appends their numbers to tagpath ("." between numbers; tagpath is never
// cleared). On return depth holds the number of names resolved. A name after
// a non-message field is looked up among that field's later siblings.
// Returns 0, or API_ERR_FIELD_NOT_EXSIST when a name is not found (tagpath
// and depth keep what was resolved).
int TransFieldNameToTagPath(std::vector<std::string>& fieldnames, std::string& tagpath,
                            const google::protobuf::Descriptor* msgDesc, int& depth, LPPLOGCATEGORYINST log);

// Appends the numbers of vec in decimal, separated by delimiter, to tag.
void ConcatFieldPath(const std::vector<int>& vec, const std::string& delimiter, std::string& tag);

// Returns -1 when path followed by "." begins another element of setPaths
// (path is the leading part of it), else 0.
int VerifyTagPath(const std::string& path, const std::set<std::string>& setPaths, LPPLOGCATEGORYINST log);

// Empties values and cuts the fields of msg named by dottedpaths into it, in
// the set's ascending order, through a version-1 PbValueSetBuffer: one record
// per path with the tag path and exactly the bytes protobuf's field
// serializer writes for the field (its own key, then its value; nothing for
// an unset field). Paths whose first name is in setKeyNames are skipped.
// Sub-messages on the way are created in msg. Cached sizes must be current.
//
// Results: 0 (also for a null msg or no paths); GEN_ERR_INVALID_ARGUMENTS for
// a bad path (more than 256 paths, 1024 characters or more, more than 32
// names, a leading part of another path, an unknown name, a non-message field
// before the last name); API_ERR_UNSUPPORT_FIELD_TYPE for a repeated field on
// the path; GEN_ERR_ERR when the builder refuses a field (for example one too
// large for the set). On failure the fields already cut stay in values.
int FillValueSetWithMsg(google::protobuf::Message* msg, const std::set<std::string>& setKeyNames,
                        const std::set<std::string>& dottedpaths, ProtobufValueSet_& values,
                        LPPLOGCATEGORYINST log);

// Merges value-set fields into msg, each replacing the field at its tag path
// (sub-messages are created on the way). A field whose bytes do not parse as
// the expected field, and every encrypted string or bytes field (left as the
// ciphertext merged), has its tag path inserted into failedpaths, which is
// never cleared. data and datasize are accepted and not used.
//
// Results: 0 (all fields handled, some perhaps listed in failedpaths), or
// GEN_ERR_INVALID_ARGUMENTS when a tag path names no field or cannot be
// walked; fields merged before it stay merged.
int FillMsgFromField(std::vector<CorvidaCommon::PbValueSetBuffer::Field>& fields, std::set<std::string>& failedpaths,
                     google::protobuf::Message* msg, unsigned char* data, int datasize, LPPLOGCATEGORYINST log);

// ---------------------------------------------------------------------------
// Server schema.
// ---------------------------------------------------------------------------

// Collects the build errors of a descriptor pool into m_strMsg. Each error
// turns m_strMsg into old + old + "AddError() called unexpectedly: FILE
// [ELEMENT]: MESSAGE\n", so n errors leave 2^n - 1 lines. An error that would
// take m_strMsg to 64 MiB or more is dropped, so a schema with many build
// errors cannot exhaust memory. Warnings are dropped.
class ParseErrorCollector : public google::protobuf::DescriptorPool::ErrorCollector {
public:
    ~ParseErrorCollector() override;

    void AddError(const std::string& filename, const std::string& element_name,
                  const google::protobuf::Message* message,
                  google::protobuf::DescriptorPool::ErrorCollector::ErrorLocation location,
                  const std::string& error_message) override;

    std::string m_strMsg;
};

// The schema of one table as FillMessageGroup loads it. Create it empty, fill
// it once, keep it while any descriptor from m_pool is in use. A filled group
// is only read and may be shared between threads.
//
// A new group has null pointers and empty lists (m_check 0). The destructor
// destroys the pool, then the database, then the error collectors that the
// pool reported to: the group keeps every collector it handed to a pool
// alive, so later lookups that build further files never report to a
// destroyed object.
struct MsgDescGroup {
    MsgDescGroup();
    ~MsgDescGroup();

    MsgDescGroup(const MsgDescGroup&) = delete;
    MsgDescGroup& operator=(const MsgDescGroup&) = delete;

    google::protobuf::SimpleDescriptorDatabase* m_sdb;  // every file of the blob and the two built-ins; owned
    google::protobuf::DescriptorPool* m_pool;           // built lazily over m_sdb; owned
    const google::protobuf::Descriptor* m_desc;         // the table's type in m_pool, or null
    std::vector<int> vecKeyTag;                         // primary-key field numbers, ascending
    std::vector<int> vecSplitKeyTag;                    // sharding-key field numbers, ascending
    std::map<std::string, std::vector<int>> m_mapIndex; // index name -> field numbers, ascending
    int m_check;                                        // reserved for the caller

    std::vector<std::unique_ptr<ParseErrorCollector>> m_collectors;  // error collectors of the pools
};

// Loads the schema blob strIdl (a serialized FileDescriptorSet) into group
// and finds the top-level message type tablename in it. Fills vecKeyTag,
// vecSplitKeyTag and m_mapIndex from the type's options. Returns the type
// (group->m_desc), or null on every failure: null group, a blob that does not
// parse, a file that fails to build, no such type, no primary key, or an
// option naming a missing field (m_desc stays set in the last two cases).
// Meant to be called once per group. With a null log nothing is logged and
// vecSplitKeyTag stays empty (FetchShardingKey refuses a null log).
const google::protobuf::Descriptor* FillMessageGroup(const std::string& tablename, const std::string& strIdl,
                                                     MsgDescGroup* group, LPPLOGCATEGORYINST log);

// Replaces vecShardingKey with the names of svr's corvida_sharding_key.
// Returns 0, or -1 without touching anything when svr or log is null.
int FetchShardingKey(const google::protobuf::Descriptor* svr, std::vector<std::string>& vecShardingKey,
                     LPPLOGCATEGORYINST log);

// Compares the server's type svr with the client's type client and returns 0
// when they are compatible, else the code of the first difference (logged at
// error priority):
//   -1 null argument (log included); -3 syntax; -4 type name or primary-key
//   count; -6 a server key missing in the client; -7 cipher suite name; -8
//   cipher digest; -9 null server field; -10/-11/-12 optional or repeated
//   server field: name or type / crypto flag / nested type; -13 ... -18
//   required server field: missing / name / type / label / crypto flag /
//   nested type; -19 index count; -20 sharding key; -21 server index missing
//   in the client; -22 index fields differ.
// A pair of types already being compared further up the same call counts as
// compatible when met again, so self-referencing types compare in finite time.
int CompareMessageMeta(const google::protobuf::Descriptor* svr, const google::protobuf::Descriptor* client,
                       LPPLOGCATEGORYINST log);

// True when a and b hold the same multiset of strings.
bool is_vecEqual(std::vector<std::string> a, std::vector<std::string> b);

// Loads strIdl into a private pool and compares its top-level type tablename
// with client. Returns 0 when compatible; -1 when the blob does not parse, the
// type is not found, or client or log is null; -2 when a schema file fails to
// build; otherwise CompareMessageMeta's code. Nothing survives the call.
int GetMetaAndCompare(const std::string& tablename, const std::string& strIdl,
                      const google::protobuf::Descriptor* client, LPPLOGCATEGORYINST log);

// ---------------------------------------------------------------------------
// Query results.
// ---------------------------------------------------------------------------

// Copies one query-result field into gValue. Returns 0; -1 when idl, field or
// log is null (gValue untouched, nothing logged); -2 for a type it does not
// convert; the getter's non-zero status, passed through unchanged; or -3 when
// memory for a string value runs out. gValue.m_type is TYPE_INVALID unless the
// value was stored; on failure the union and m_string_ keep what they held.
// Strings pass through idl->szValue and are stored as the whole
// 10,000,000-byte buffer: the text, its NUL and whatever follows, so
// m_string_.size() is always 10,000,000 and readers take the value up to the
// first NUL. Traces each stored value and, on every path after the null
// checks, "ret: %d".
int FieldValue2GenericValue(tagtbl_idl* idl, CorvidaService::Field* field,
                            NS_CORVIDA_PROTOBUF_API::GenericValue& gValue, LPPLOGCATEGORYINST log);

}  // namespace PROTOBUF_UTIL

#endif  // CORVIDA_PROTOBUF_API_PROTOBUF_UTIL_H_

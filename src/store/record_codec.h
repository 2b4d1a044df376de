// The read path of stored bytes: a row's fields merged back into a message,
// a primary key parsed back into the key fields. Private to the store.
//
// Both take bytes that came from disk and may be damaged: nothing here
// crashes, reads out of bounds or throws on any input. A field that cannot
// be merged is reported by its tag path; the rest of the row still merges.
#ifndef CORVIDA_STORE_RECORD_CODEC_H_
#define CORVIDA_STORE_RECORD_CODEC_H_

#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include "common/pb_value_set_buffer.h"
#include "plog/plog.h"
#include "protobuf_api/corvida_kv_api.h"

namespace corvida {
namespace store {

// One stored field of a row: its tag path and its bytes (the field's own key
// and value, or nothing for an absent field).
struct StoredField {
    std::string tag_path;
    std::string bytes;
};

// Merges fields, in the order given (the row's key order), into msg. A
// top-level repeated field or map is restored whole: the field is cleared and
// its bytes parsed element by element with protobuf's parser. Every other
// field goes through the bridge's FillMsgFromField, which replaces the field
// at its tag path. The tag path of every field that did not merge (text that
// is no tag path, an unknown path, bytes of another field, damaged bytes, an
// encrypted field left as stored) is inserted into failed_paths.
void MergeStoredFields(const std::vector<StoredField>& fields, google::protobuf::Message* msg,
                       std::set<std::string>* failed_paths, LPPLOGCATEGORYINST log);

// Appends to out protobuf's serialization of the repeated field `field` of
// msg (every element, each with its key, or one packed run), as it is stored.
void SerializeRepeatedField(const google::protobuf::Message& msg, const google::protobuf::FieldDescriptor* field,
                            std::string* out);

// True for a singular string or bytes field marked corvida_crypto: the key
// encoders write the ciphertext of its value (of the empty value when it is
// not set) in place of the value.
bool IsEncryptedKeyField(const google::protobuf::FieldDescriptor* field);

// Parses primary key bytes (the output of ExtractMsgKey) into msg's key
// fields. Encrypted key fields are decrypted with the table's cipher suite
// from kv, so the plain value comes back. Returns false, with *why set and
// no key material in it, when the bytes are not such a key.
bool ParsePrimaryKey(std::string_view pk, CORVIDA_KV::CorvidaKVApi* kv, google::protobuf::Message* msg,
                     std::string* why);

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_RECORD_CODEC_H_

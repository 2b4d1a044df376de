#include "corvida-pb/explain.h"

#include "common/corvida_error_code.h"
#include "corvidaservice.optionv1.pb.h"
#include "protobuf_api/cipher_suite_base.h"

namespace corvida_pb {

using google::protobuf::Descriptor;

namespace {

std::string Quoted(const std::string& s) { return "\"" + s + "\""; }

std::string Unexpected(int code) { return "the operation failed with an undocumented result " + std::to_string(code); }

}  // namespace

std::string ExplainKeyResult(int code, const Descriptor* table, bool field_key, CORVIDA_KV::CorvidaKVApi* api,
                             size_t key_length) {
    const auto& options = table->options();
    const std::string suite_name = options.GetExtension(corvidaservice::corvida_field_cipher_suite);
    switch (code) {
        case -1: return "a required argument of the key operation is null";
        case -2: return "the message of " + table->full_name() + " has no reflection";
        case -3:
            return table->full_name() + " encrypts key fields with the cipher suite " + Quoted(suite_name) +
                   ", which is not configured; give its key with --cipher " + suite_name + "=HEXKEY";
        case -4: {
            CipherSuite* suite = api->GetCipherSuite(suite_name.c_str());
            return "the key given for cipher suite " + Quoted(suite_name) + " has MD5 " +
                   (suite != nullptr ? suite->GetCipherKeyMD5() : std::string("(unknown)")) + ", but " +
                   table->full_name() + " was made for the key with MD5 " +
                   options.GetExtension(corvidaservice::corvida_cipher_md5) + " (corvida_cipher_md5)";
        }
        case -5:
            return "the primary key option of " + table->full_name() + " (" +
                   Quoted(options.GetExtension(corvidaservice::corvida_primary_key)) +
                   ") names a field the table does not have";
        case -6:
            return "a key field of " + table->full_name() +
                   " is marked corvida_crypto, but the table names no cipher suite (corvida_field_cipher_suite)";
        case -7: {
            CipherSuite* suite = api->GetCipherSuite(suite_name.c_str());
            return "cipher suite " + Quoted(suite_name) + " failed to encrypt a key field" +
                   (suite != nullptr ? ": " + suite->GetErrMsg() : std::string());
        }
        case -9:
            return field_key ? "a field of the field key is not set, so it adds no bytes to the key"
                             : "a key field is not set, so it adds no bytes to the key (--check demands every key "
                               "field)";
        case -10: return "the key is " + std::to_string(key_length) + " bytes, longer than the limit of 1022 bytes";
        default: return Unexpected(code);
    }
}

std::string ExplainCutResult(int code) {
    switch (code) {
        case CorvErrCode::GEN_ERR_INVALID_ARGUMENTS:
            return "a path is invalid: a name the message does not have, a field that is not a message before the "
                   "last name, a path that begins another path, a path of 1024 characters or more, more than 32 "
                   "names, or more than 256 paths (the log line above says which)";
        case CorvErrCode::API_ERR_UNSUPPORT_FIELD_TYPE:
            return "a path names or passes through a repeated field, and repeated fields cannot be cut";
        case CorvErrCode::GEN_ERR_ERR: return "the value set refused a field: it is full, or the field does not fit";
        default: return Unexpected(code);
    }
}

std::string ExplainMergeResult(int code) {
    if (code == CorvErrCode::GEN_ERR_INVALID_ARGUMENTS) {
        return "a tag path of the value set names no field of the table, or is empty (the log line above says "
               "which); the fields before it are merged";
    }
    return Unexpected(code);
}

std::string ExplainCompareResult(int code) {
    switch (code) {
        case -1:
            return "the server schema blob does not parse, or none of its files declares a top-level message of "
                   "the table's name; check the blob and the table name";
        case -2:
            return "a schema file of the blob could not be built: the blob lacks a file it imports (make it with "
                   "--include_imports) or holds an invalid definition";
        case -3:
            return "the server's file and the client's file use different syntax (proto2 against proto3); "
                   "declare the server's syntax in the client";
        case -4:
            return "the full message type names differ, or the primary keys have a different number of fields; "
                   "use the server's package, message name and corvida_primary_key";
        case -6:
            return "a primary-key field of the server is not in the client's primary key; list the server's key "
                   "fields in corvida_primary_key";
        case -7: return "the cipher suite names (corvida_field_cipher_suite) differ; use the server's suite";
        case -8:
            return "the cipher key digests (corvida_cipher_md5) differ: the client's schema was made for another "
                   "key; use the server's digest and key";
        case -9: return "the server's message type holds a field that cannot be read";
        case -10:
            return "an optional or repeated field of the server has another name or type in the client's field of "
                   "the same number; give the client field the server's name and type";
        case -11:
            return "an optional or repeated field of the server differs from the client's field of the same number "
                   "in its corvida_crypto mark; mark both or neither";
        case -12:
            return "the message type of an optional or repeated field differs between server and client (the "
                   "nested difference is logged above); make the nested types match";
        case -13: return "a required field of the server is missing in the client; add it with the same number";
        case -14:
            return "a required field of the server has another name in the client; give the client field the "
                   "server's name";
        case -15:
            return "a required field of the server has another type in the client; give the client field the "
                   "server's type";
        case -16: return "a required field of the server is not required in the client; make the client field required";
        case -17:
            return "a required field of the server differs from the client's field in its corvida_crypto mark; "
                   "mark both or neither";
        case -18:
            return "the message type of a required field differs between server and client (the nested "
                   "difference is logged above); make the nested types match";
        case -19: return "the number of indexes (corvida_index) differs; declare the server's indexes in the client";
        case -20: return "the sharding keys (corvida_sharding_key) differ; use the server's sharding key, or none";
        case -21: return "an index of the server is missing in the client; declare it under the same name";
        case -22: return "an index has other fields in the client than in the server; list the server's fields";
        default: return Unexpected(code);
    }
}

}  // namespace corvida_pb

// Compatibility of the server's message type of a table with the client's.
//
// The checks run in a fixed order and the first difference ends the
// comparison with its own code, so callers and operators can tell from the
// code alone which rule the server's schema broke.
#include <algorithm>
#include <iterator>
#include <map>
#include <new>
#include <utility>

#include "corvidaservice.optionv1.pb.h"
#include "protobuf_api/protobuf_util.h"
#include "protobuf_api/protobuf_util_log.h"

namespace PROTOBUF_UTIL {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;

// Every line of a comparison, whichever helper writes it, names the operation.
constexpr char kFunc[] = "CompareMessageMeta";

// The (server, client) pairs being compared, outermost first.
using ComparePath = std::vector<std::pair<const Descriptor*, const Descriptor*>>;

// Index name -> the index's field names.
using IndexMap = std::map<std::string, std::vector<std::string>>;

int CompareTypes(const Descriptor* svr, const Descriptor* client, LPPLOGCATEGORYINST log, ComparePath& path);

// Primary keys: the same number of names, and every server name among the
// client's. Order does not matter and duplicates are not counted.
int ComparePrimaryKeys(const Descriptor* svr, const Descriptor* client, LPPLOGCATEGORYINST log) {
    const std::string& strSvrPrimaryKey = svr->options().GetExtension(corvidaservice::corvida_primary_key);
    const std::string& strClientPrimaryKey = client->options().GetExtension(corvidaservice::corvida_primary_key);
    PBU_LOG_IN(kFunc, log, PLOG_PRIORITY_TRACE, "svr primary key:%s, client primary key:%s", strSvrPrimaryKey.c_str(),
               strClientPrimaryKey.c_str());
    std::vector<std::string> vecSvrKeys;
    std::vector<std::string> vecClientKeys;
    if (!strSvrPrimaryKey.empty()) TokenSplit(strSvrPrimaryKey, ",", vecSvrKeys);
    if (!strClientPrimaryKey.empty()) TokenSplit(strClientPrimaryKey, ",", vecClientKeys);
    if (vecSvrKeys.size() != vecClientKeys.size()) {
        PBU_LOG_IN(kFunc, log, PLOG_PRIORITY_ERROR, "svr primary key:%s, client primary key:%s not match",
                   strSvrPrimaryKey.c_str(), strClientPrimaryKey.c_str());
        return -4;
    }
    for (const std::string& key : vecSvrKeys) {
        if (std::find(vecClientKeys.begin(), vecClientKeys.end(), key) == vecClientKeys.end()) {
            // The client's option text stands after "field:" and the missing
            // name after "client primary key:"; operators' tooling reads it so.
            PBU_LOG_IN(kFunc, log, PLOG_PRIORITY_ERROR,
                       "svr primary key:%s, field:%s, client primary key:%s, not match", strSvrPrimaryKey.c_str(),
                       strClientPrimaryKey.c_str(), key.c_str());
            return -6;
        }
    }
    return 0;
}

// Cipher suite name, then the digest of its key.
int CompareCipherOptions(const Descriptor* svr, const Descriptor* client, LPPLOGCATEGORYINST log) {
    const std::string& strSvrCipherSuite = svr->options().GetExtension(corvidaservice::corvida_field_cipher_suite);
    const std::string& strClientCipherSuite =
        client->options().GetExtension(corvidaservice::corvida_field_cipher_suite);
    PBU_LOG_IN(kFunc, log, PLOG_PRIORITY_TRACE, "svr suite name:%s, client suite name:%s", strSvrCipherSuite.c_str(),
               strClientCipherSuite.c_str());
    if (strSvrCipherSuite != strClientCipherSuite) {
        PBU_LOG_IN(kFunc, log, PLOG_PRIORITY_ERROR, "strSvrCipherSuite:%s strClientCipherSuite:%s not match.",
                   strSvrCipherSuite.c_str(), strClientCipherSuite.c_str());
        return -7;
    }
    const std::string& strSvrCipherMd5 = svr->options().GetExtension(corvidaservice::corvida_cipher_md5);
    const std::string& strClientCipherMd5 = client->options().GetExtension(corvidaservice::corvida_cipher_md5);
    PBU_LOG_IN(kFunc, log, PLOG_PRIORITY_TRACE, "svr suite md5:%s, client suite md5:%s", strSvrCipherMd5.c_str(),
               strClientCipherMd5.c_str());
    if (strSvrCipherMd5 != strClientCipherMd5) {
        PBU_LOG_IN(kFunc, log, PLOG_PRIORITY_ERROR, "strSvrCipherMd5:%s strClientCipherMd5:%s not match.",
                   strSvrCipherMd5.c_str(), strClientCipherMd5.c_str());
        return -8;
    }
    return 0;
}

bool IsMessageField(const FieldDescriptor* field) {
    return field->type() == FieldDescriptor::TYPE_MESSAGE || field->type() == FieldDescriptor::TYPE_GROUP;
}

// A required server field: the client must have it with the same name, type,
// label and crypto flag, and a compatible message type.
int CompareRequiredField(const FieldDescriptor* svrField, const FieldDescriptor* clientField, int i, bool bSvrCrypto,
                         LPPLOGCATEGORYINST log, ComparePath& path) {
    if (clientField == nullptr) {
        PBU_LOG_IN(kFunc, log, PLOG_PRIORITY_ERROR, "NULL == clientField:%p idx:%d, svr_name:%s.",
                   static_cast<const void*>(clientField), i, svrField->full_name().c_str());
        return -13;
    }
    if (svrField->full_name() != clientField->full_name()) {
        PBU_LOG_IN(kFunc, log, PLOG_PRIORITY_ERROR, "svrField->full_name:%s. clientField->full_name():%s not match",
                   svrField->full_name().c_str(), clientField->full_name().c_str());
        return -14;
    }
    if (svrField->type() != clientField->type()) {
        PBU_LOG_IN(kFunc, log, PLOG_PRIORITY_ERROR, "svrField->type():%d. clientField->type():%d not match",
                   static_cast<int>(svrField->type()), static_cast<int>(clientField->type()));
        return -15;
    }
    if (svrField->label() != clientField->label()) {
        PBU_LOG_IN(kFunc, log, PLOG_PRIORITY_ERROR, "svrField->label():%d. clientField->label():%d not match",
                   static_cast<int>(svrField->label()), static_cast<int>(clientField->label()));
        return -16;
    }
    const bool bClientCrypto = clientField->options().GetExtension(corvidaservice::corvida_crypto);
    PBU_LOG_IN(kFunc, log, PLOG_PRIORITY_TRACE,
               "svr field name:%s corvida_crypto:%d, client field name:%s corvida_crypto:%d svr type:%d",
               svrField->name().c_str(), bSvrCrypto, clientField->name().c_str(), bClientCrypto,
               static_cast<int>(svrField->type()));
    if (bSvrCrypto != bClientCrypto) {
        // The wording speaks of an optional field although the field is
        // required; log readers match this exact text.
        PBU_LOG_IN(kFunc, log, PLOG_PRIORITY_ERROR,
                      "optional field but name( svrField->full_name:%s. clientField->full_name():%s ) svr crypto:%d, "
                      "client crypto:%d not match",
                      svrField->full_name().c_str(), clientField->full_name().c_str(), bSvrCrypto, bClientCrypto);
        return -17;
    }
    if (IsMessageField(svrField)) {
        const int iRet = CompareTypes(svrField->message_type(), clientField->message_type(), log, path);
        if (iRet != 0) {
            PBU_LOG_IN(kFunc, log, PLOG_PRIORITY_ERROR, "CmpMsg(%s, %s) failed: %d", svrField->full_name().c_str(),
                       clientField->full_name().c_str(), iRet);
            return -18;
        }
    }
    return 0;
}

// An optional or repeated server field: the client may lack it; labels are not
// compared, so optional and repeated match each other.
int CompareLenientField(const FieldDescriptor* svrField, const FieldDescriptor* clientField, bool bSvrCrypto,
                        LPPLOGCATEGORYINST log, ComparePath& path) {
    if (clientField == nullptr) return 0;
    if (svrField->full_name() != clientField->full_name() || svrField->type() != clientField->type()) {
        PBU_LOG_IN(kFunc, log, PLOG_PRIORITY_ERROR,
                      "optional field but name( svrField->full_name:%s. clientField->full_name():%s ) not match or "
                      "type (svrField->type():%d. clientField->type():%d) not match",
                      svrField->full_name().c_str(), clientField->full_name().c_str(),
                      static_cast<int>(svrField->type()), static_cast<int>(clientField->type()));
        return -10;
    }
    const bool bClientCrypto = clientField->options().GetExtension(corvidaservice::corvida_crypto);
    PBU_LOG_IN(kFunc, log, PLOG_PRIORITY_TRACE,
               "svr field name:%s corvida_crypto:%d, client field name:%s corvida_crypto:%d", svrField->name().c_str(),
               bSvrCrypto, clientField->name().c_str(), bClientCrypto);
    if (bSvrCrypto != bClientCrypto) {
        // This line prints the two field types where the flags would be
        // expected; log readers depend on the line as it stands.
        PBU_LOG_IN(kFunc, log, PLOG_PRIORITY_ERROR,
                      "optional fieldsvrField->full_name:%s. clientField->full_name():%s svr crypto:%d, client "
                      "crypto:%d not match",
                      svrField->full_name().c_str(), clientField->full_name().c_str(),
                      static_cast<int>(svrField->type()), static_cast<int>(clientField->type()));
        return -11;
    }
    if (IsMessageField(svrField)) {
        const int iRet = CompareTypes(svrField->message_type(), clientField->message_type(), log, path);
        if (iRet != 0) {
            PBU_LOG_IN(kFunc, log, PLOG_PRIORITY_ERROR, "CmpMsg(%s, %s) failed: %d", svrField->full_name().c_str(),
                       clientField->full_name().c_str(), iRet);
            return -12;
        }
    }
    return 0;
}

// Every server field against the client field of the same number. Client
// fields whose numbers the server lacks are never looked at.
int CompareFields(const Descriptor* svr, const Descriptor* client, LPPLOGCATEGORYINST log, ComparePath& path) {
    for (int i = 0; i < svr->field_count(); ++i) {
        const FieldDescriptor* svrField = svr->field(i);
        if (svrField == nullptr) {
            PBU_LOG_IN(kFunc, log, PLOG_PRIORITY_ERROR, "NULL == svrField:%p, idx:%d.",
                       static_cast<const void*>(svrField), i);
            return -9;
        }
        const bool bSvrCrypto = svrField->options().GetExtension(corvidaservice::corvida_crypto);
        PBU_LOG_IN(kFunc, log, PLOG_PRIORITY_TRACE, "svr field name:%s corvida_crypto:%d label:%d",
                   svrField->name().c_str(), bSvrCrypto, static_cast<int>(svrField->label()));
        const FieldDescriptor* clientField = client->FindFieldByNumber(svrField->number());
        const bool lenient = svrField->label() == FieldDescriptor::LABEL_OPTIONAL ||
                             svrField->label() == FieldDescriptor::LABEL_REPEATED;
        const int iRet = lenient ? CompareLenientField(svrField, clientField, bSvrCrypto, log, path)
                                 : CompareRequiredField(svrField, clientField, i, bSvrCrypto, log, path);
        if (iRet != 0) return iRet;
    }
    return 0;
}

// Index declarations by name. getIndexInfo's result is not checked: a
// malformed entry takes part with the name and field text it left, and a
// later entry of a name replaces an earlier one.
IndexMap ReadIndexes(const Descriptor* type) {
    IndexMap indexes;
    const int count = type->options().ExtensionSize(corvidaservice::corvida_index);
    for (int i = 0; i < count; ++i) {
        std::string tmp_index_name;
        std::string tmp_index_fields;
        std::vector<std::string> tmp_vecIndexFields;
        getIndexInfo(type->options().GetExtension(corvidaservice::corvida_index, i), tmp_index_name, tmp_index_fields);
        TokenSplit(tmp_index_fields, ",", tmp_vecIndexFields);
        indexes[tmp_index_name] = tmp_vecIndexFields;
    }
    return indexes;
}

// Index count, then (only for types with indexes) the sharding key and every
// server index's fields. Client indexes the server lacks are not reported:
// the counts are already equal.
int CompareIndexes(const Descriptor* svr, const Descriptor* client, LPPLOGCATEGORYINST log) {
    const int iSvrIndexNum = svr->options().ExtensionSize(corvidaservice::corvida_index);
    const int iClientIndexNum = client->options().ExtensionSize(corvidaservice::corvida_index);
    if (iSvrIndexNum != iClientIndexNum) {
        PBU_LOG_IN(kFunc, log, PLOG_PRIORITY_ERROR, "svr's index num:%d, client's index num:%d not match.",
                   iSvrIndexNum, iClientIndexNum);
        return -19;
    }
    // Tables without indexes pass whatever their sharding keys say.
    if (iSvrIndexNum == 0) return 0;

    const std::string& strSvrShardingKey = svr->options().GetExtension(corvidaservice::corvida_sharding_key);
    const std::string& strClientShardingKey = client->options().GetExtension(corvidaservice::corvida_sharding_key);
    PBU_LOG_IN(kFunc, log, PLOG_PRIORITY_DEBUG, "svr sharding key:%s, client sharding key:%s",
               strSvrShardingKey.c_str(), strClientShardingKey.c_str());
    // A client without a sharding key accepts the server's.
    if (!strClientShardingKey.empty() && strClientShardingKey != strSvrShardingKey) {
        PBU_LOG_IN(kFunc, log, PLOG_PRIORITY_ERROR, "strSvrShardingKey:%s strClientShardingKey:%s not match.",
                   strSvrShardingKey.c_str(), strClientShardingKey.c_str());
        return -20;
    }

    const IndexMap mapIndexes_svr = ReadIndexes(svr);
    const IndexMap mapIndexes_client = ReadIndexes(client);
    for (const auto& svrIndex : mapIndexes_svr) {
        const auto clientIndex = mapIndexes_client.find(svrIndex.first);
        if (clientIndex == mapIndexes_client.end()) {
            PBU_LOG_IN(kFunc, log, PLOG_PRIORITY_ERROR, "Cannot find index(%s) in client proto.",
                       svrIndex.first.c_str());
            return -21;
        }
        if (!is_vecEqual(svrIndex.second, clientIndex->second)) {
            PBU_LOG_IN(kFunc, log, PLOG_PRIORITY_ERROR, "Index %s has been modified", svrIndex.first.c_str());
            return -22;
        }
    }
    return 0;
}

// The checks of one pair of types, in their fixed order.
int CompareTypeMeta(const Descriptor* svr, const Descriptor* client, LPPLOGCATEGORYINST log, ComparePath& path) {
    if (svr->file()->syntax() != client->file()->syntax()) {
        PBU_LOG_IN(kFunc, log, PLOG_PRIORITY_ERROR, "svr proto syntax:%d != client proto syntax:%d.",
                   static_cast<int>(svr->file()->syntax()), static_cast<int>(client->file()->syntax()));
        return -3;
    }
    if (svr->full_name() != client->full_name()) {
        PBU_LOG_IN(kFunc, log, PLOG_PRIORITY_ERROR, "message type not match, svr:%s client:%s.",
                   svr->full_name().c_str(), client->full_name().c_str());
        return -4;
    }
    int iRet = ComparePrimaryKeys(svr, client, log);
    if (iRet == 0) iRet = CompareCipherOptions(svr, client, log);
    if (iRet == 0) iRet = CompareFields(svr, client, log, path);
    if (iRet == 0) iRet = CompareIndexes(svr, client, log);
    return iRet;
}

// Compares svr with client, nested types included. A pair already on path
// (being compared further up) counts as compatible: whatever differs in it is
// reported by the comparison already running, and self-referencing types end.
int CompareTypes(const Descriptor* svr, const Descriptor* client, LPPLOGCATEGORYINST log, ComparePath& path) {
    if (client == nullptr || svr == nullptr || log == nullptr) return -1;
    const auto pair = std::make_pair(svr, client);
    if (std::find(path.begin(), path.end(), pair) != path.end()) return 0;
    path.push_back(pair);
    const int iRet = CompareTypeMeta(svr, client, log, path);
    path.pop_back();
    return iRet;
}

}  // namespace

int CompareMessageMeta(const Descriptor* svr, const Descriptor* client, LPPLOGCATEGORYINST log) {
    try {
        ComparePath path;
        return CompareTypes(svr, client, log, path);
    } catch (const std::bad_alloc&) {
        // Only the scratch strings, vectors and maps allocate; without memory
        // no verdict is possible, and the types are not called compatible.
        PBU_LOG_IN(kFunc, log, PLOG_PRIORITY_ERROR, "CompareMessageMeta: out of memory.");
        return -1;
    }
}

// Equal sizes, a full sorted intersection and an empty sorted difference: the
// same multiset of names, in any order.
bool is_vecEqual(std::vector<std::string> a, std::vector<std::string> b) {
    if (a.size() != b.size()) return false;
    try {
        std::sort(a.begin(), a.end());
        std::sort(b.begin(), b.end());
        std::vector<std::string> common;
        std::set_intersection(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(common));
        if (common.size() != a.size()) return false;
        std::vector<std::string> difference;
        std::set_difference(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(difference));
        return difference.empty();
    } catch (const std::bad_alloc&) {
        return false;  // equality cannot be shown without memory
    }
}

}  // namespace PROTOBUF_UTIL

// The straightforward implementation of the record-key and value-set
// operations, kept as the library first wrote them: field by field, through
// protobuf's generic serializer and parser, with a coded stream per field.
//
// It is compiled into the differential test only, which runs it next to the
// library on the same inputs and requires the same results, output bytes,
// failed paths and log lines. Every function behaves as the library function
// of the same name (see protobuf_api/protobuf_util.h); log lines carry the same
// file text and function names. Do not make it fast: it is the yardstick.
#ifndef CORVIDA_TESTS_REFERENCE_REFERENCE_H_
#define CORVIDA_TESTS_REFERENCE_REFERENCE_H_

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/message.h>

#include "protobuf_api/protobuf_util.h"

namespace corvida_reference {

using CORVIDA_KV::CorvidaKVApi;
using PROTOBUF_UTIL::_FieldDescPtrFunctor;
using PROTOBUF_UTIL::isWhitespace;

class ProtobufUtil {
public:
    static int ExtractMsgKey(CorvidaKVApi* pKVApi, const google::protobuf::Message& msg, uint8_t* buf, int32_t& size,
                             tagtbl_idl* idl, LPPLOGCATEGORYINST log, bool bCheck);

    static int ExtractFieldKey(CorvidaKVApi* pKVApi, const google::protobuf::Message& msg,
                               const std::vector<int>& vecFields, uint8_t* buf, int32_t& size, tagtbl_idl* idl,
                               LPPLOGCATEGORYINST log);

    static void SerializeFieldWithCachedSizesEx(const google::protobuf::FieldDescriptor* field,
                                                const google::protobuf::Message& message,
                                                google::protobuf::io::CodedOutputStream* output);
};

int VerifyTagPath(const std::string& path, const std::set<std::string>& setPaths, LPPLOGCATEGORYINST log);

int FillValueSetWithMsg(google::protobuf::Message* msg, const std::set<std::string>& setKeyNames,
                        const std::set<std::string>& dottedpaths, ProtobufValueSet_& values, LPPLOGCATEGORYINST log);

int FillMsgFromField(std::vector<CorvidaCommon::PbValueSetBuffer::Field>& fields, std::set<std::string>& failedpaths,
                     google::protobuf::Message* msg, unsigned char* data, int datasize, LPPLOGCATEGORYINST log);

}  // namespace corvida_reference

#endif  // CORVIDA_TESTS_REFERENCE_REFERENCE_H_

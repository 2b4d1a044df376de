// Query results: typed result columns converted into generic values.
#include <memory>
#include <string>

#include "expect.h"
#include "protobuf_api/protobuf_util.h"

int main() {
    PLOGCATEGORYINST log;
    plog_category_init(&log, "guide", PLOG_PRIORITY_ERROR);
    std::unique_ptr<tagtbl_idl> idl(new tagtbl_idl);  // scratch space for string values

    // [START convert]
    using NS_CORVIDA_PROTOBUF_API::GenericValue;
    CorvidaService::Field column;  // one column of a result row, as the result decoder hands it out
    column.SetInt64(1234567890123LL);
    GenericValue value;
    int ret = PROTOBUF_UTIL::FieldValue2GenericValue(idl.get(), &column, value, &log);
    Expect(ret == 0 && value.m_type == GenericValue::TYPE_INT64 && value.m_int64_ == 1234567890123LL, "an int64");

    column.SetString("Lyon");
    ret = PROTOBUF_UTIL::FieldValue2GenericValue(idl.get(), &column, value, &log);
    // A string value holds the whole 10,000,000-byte scratch buffer: the text
    // ends at the first NUL.
    Expect(ret == 0 && value.m_type == GenericValue::TYPE_STRING && value.m_string_.size() == 10000000 &&
               std::string(value.m_string_.c_str()) == "Lyon",
           "a string");
    // [END convert]

    // [START unsupported]
    CorvidaService::Field invalid;  // TYPE_INVALID
    ret = PROTOBUF_UTIL::FieldValue2GenericValue(idl.get(), &invalid, value, &log);
    Expect(ret == -2 && value.m_type == GenericValue::TYPE_INVALID, "a type that is not converted");
    // [END unsupported]

    return ExitStatus();
}

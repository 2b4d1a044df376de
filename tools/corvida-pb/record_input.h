// Records read back from what export, scan and find print (RecordPrinter,
// report.h), one at a time, so that an input of any size is read in the
// memory of one record.
//
// JSON: one object per line; blank lines and the cursor line
// {"#next":"CURSOR"} are skipped. Text: records in protobuf text format,
// each after a line "# record N"; lines before the first such line are a
// record of their own when they hold more than blanks and comments (what
// "store get" prints), and "# next CURSOR" is a comment.
//
// A record that does not parse is reported with its position in the input
// ("FILE:LINE: reason", with the column where protobuf gives one), and
// reading goes on with the next record.
#ifndef CORVIDA_PB_RECORD_INPUT_H_
#define CORVIDA_PB_RECORD_INPUT_H_

#include <cstdint>
#include <istream>
#include <memory>
#include <string>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include "corvida-pb/report.h"

namespace corvida_pb {

class RecordInput {
public:
    enum class Result { kRecord, kBad, kEnd };

    // source names the input in messages ("data.json", "-" for standard
    // input).
    RecordInput(std::istream& in, RecordFormat format, std::string source, const google::protobuf::Descriptor* type);

    // Reads the next record into msg (cleared first): kRecord, kBad with the
    // reason in *error, or kEnd.
    Result Next(google::protobuf::Message* msg, std::string* error);

    // The first line of the record Next() read last (from 1).
    uint64_t line() const { return m_record_line; }
    // The bytes read so far.
    uint64_t bytes() const { return m_bytes; }

private:
    bool ReadLine();
    Result NextJson(google::protobuf::Message* msg, std::string* error);
    Result NextText(google::protobuf::Message* msg, std::string* error);

    std::istream& m_in;
    RecordFormat m_format;
    std::string m_source;
    std::unique_ptr<JsonMapping> m_json;  // JSON only
    std::string m_line;                   // the line read last
    uint64_t m_line_number = 0;           // of m_line
    uint64_t m_record_line = 0;
    uint64_t m_bytes = 0;
    bool m_pending = false;               // text: m_line is a "# record" line not yet used
    std::string m_block;                  // text: the record being gathered
};

}  // namespace corvida_pb

#endif  // CORVIDA_PB_RECORD_INPUT_H_

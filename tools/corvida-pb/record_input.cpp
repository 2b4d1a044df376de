#include "corvida-pb/record_input.h"

#include "corvida-pb/schema_loader.h"

namespace corvida_pb {

namespace {

bool IsRecordMarker(const std::string& line) { return line.compare(0, 9, "# record ") == 0; }

// True when text holds nothing but blanks and comments.
bool OnlyComments(const std::string& text) {
    bool comment = false;
    for (char c : text) {
        if (c == '\n') {
            comment = false;
        } else if (c == '#') {
            comment = true;
        } else if (!comment && c != ' ' && c != '\t' && c != '\r') {
            return false;
        }
    }
    return true;
}

}  // namespace

RecordInput::RecordInput(std::istream& in, RecordFormat format, std::string source, const google::protobuf::Descriptor* type)
    : m_in(in), m_format(format), m_source(std::move(source)) {
    if (format == RecordFormat::kJson) m_json.reset(new JsonMapping(type));
}

bool RecordInput::ReadLine() {
    if (!std::getline(m_in, m_line)) return false;
    ++m_line_number;
    m_bytes += m_line.size() + 1;
    return true;
}

RecordInput::Result RecordInput::Next(google::protobuf::Message* msg, std::string* error) {
    return m_format == RecordFormat::kJson ? NextJson(msg, error) : NextText(msg, error);
}

RecordInput::Result RecordInput::NextJson(google::protobuf::Message* msg, std::string* error) {
    std::string cursor;
    while (ReadLine()) {
        if (m_line.find_first_not_of(" \t\r") == std::string::npos || ParseNextLine(m_line, &cursor)) continue;
        m_record_line = m_line_number;
        std::string why;
        if (m_json->Parse(m_line, msg, &why)) return Result::kRecord;
        *error = m_source + ":" + std::to_string(m_line_number) + ": " + why.substr(0, why.find('\n'));
        return Result::kBad;
    }
    return Result::kEnd;
}

RecordInput::Result RecordInput::NextText(google::protobuf::Message* msg, std::string* error) {
    for (;;) {
        const bool marked = m_pending;
        m_pending = false;
        m_record_line = marked ? m_line_number : m_line_number + 1;
        m_block.clear();
        while (ReadLine()) {
            if (IsRecordMarker(m_line)) {
                m_pending = true;
                break;
            }
            m_block += m_line;
            m_block.push_back('\n');
        }
        if (!marked && OnlyComments(m_block)) {
            if (m_pending) continue;  // the first record comes after its marker
            return Result::kEnd;
        }
        const int first_line = static_cast<int>(marked ? m_record_line + 1 : m_record_line);
        if (TryParseMessageText(m_block, m_source, first_line, msg, error)) return Result::kRecord;
        return Result::kBad;
    }
}

}  // namespace corvida_pb

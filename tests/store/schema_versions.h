// Versions of one table type built at run time from .proto text, for the
// schema-evolution tests: each version is a file "evolve.proto" (importing
// the option file) in a descriptor pool of its own, so that several versions
// of one full type name live side by side, as clients compiled at different
// times do.
#ifndef CORVIDA_TESTS_STORE_SCHEMA_VERSIONS_H_
#define CORVIDA_TESTS_STORE_SCHEMA_VERSIONS_H_

#include <memory>
#include <string>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/message.h>

namespace corvida_store_test {

class SchemaVersion {
public:
    // Parses text (the body of a .proto file, which may import
    // "corvidaservice.optionv1.proto"); a text that does not build fails the
    // test and leaves the version empty (ok() false).
    explicit SchemaVersion(const std::string& text);
    SchemaVersion(const SchemaVersion&) = delete;
    SchemaVersion& operator=(const SchemaVersion&) = delete;

    bool ok() const { return m_file != nullptr; }
    // The message type of that full name; null (and a test failure) when
    // there is none.
    const google::protobuf::Descriptor* Type(const std::string& full_name) const;
    // The prototype of that type: what a client opens the table with.
    const google::protobuf::Message& Prototype(const std::string& full_name);
    // A new message of that type, parsed from text format (a failure of the
    // test when it does not parse).
    std::unique_ptr<google::protobuf::Message> Parse(const std::string& full_name, const std::string& text);
    // The schema blob: descriptor.proto, the option file, then evolve.proto.
    const std::string& blob() const { return m_blob; }

private:
    google::protobuf::DescriptorPool m_pool;
    google::protobuf::DynamicMessageFactory m_factory;
    const google::protobuf::FileDescriptor* m_file = nullptr;
    std::string m_blob;
};

}  // namespace corvida_store_test

#endif  // CORVIDA_TESTS_STORE_SCHEMA_VERSIONS_H_

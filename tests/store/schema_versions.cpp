#include "schema_versions.h"

#include <google/protobuf/compiler/parser.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include "corvidaservice.optionv1.pb.h"

namespace corvida_store_test {

namespace {

// Parse errors of the .proto text, as test failures.
class FailOnError : public google::protobuf::io::ErrorCollector {
public:
    void AddError(int line, int column, const std::string& message) override {
        ADD_FAILURE() << "evolve.proto:" << line + 1 << ":" << column + 1 << ": " << message;
    }
};

}  // namespace

SchemaVersion::SchemaVersion(const std::string& text) : m_factory(&m_pool) {
    google::protobuf::FileDescriptorSet set;
    // The option file, with descriptor.proto that it imports, as compiled in.
    const google::protobuf::FileDescriptor* option_file =
        google::protobuf::DescriptorPool::generated_pool()->FindFileByName("corvidaservice.optionv1.proto");
    option_file->dependency(0)->CopyTo(set.add_file());
    option_file->CopyTo(set.add_file());

    google::protobuf::FileDescriptorProto* file = set.add_file();
    google::protobuf::io::ArrayInputStream input(text.data(), static_cast<int>(text.size()));
    FailOnError errors;
    google::protobuf::io::Tokenizer tokenizer(&input, &errors);
    google::protobuf::compiler::Parser parser;
    parser.RecordErrorsTo(&errors);
    if (!parser.Parse(&tokenizer, file)) return;
    file->set_name("evolve.proto");
    for (const auto& proto : set.file()) {
        if (m_pool.BuildFile(proto) == nullptr) {
            ADD_FAILURE() << "the file " << proto.name() << " does not build";
            return;
        }
    }
    m_file = m_pool.FindFileByName("evolve.proto");
    m_blob = set.SerializeAsString();
}

const google::protobuf::Descriptor* SchemaVersion::Type(const std::string& full_name) const {
    const google::protobuf::Descriptor* type = m_pool.FindMessageTypeByName(full_name);
    EXPECT_NE(type, nullptr) << "no type " << full_name;
    return type;
}

const google::protobuf::Message& SchemaVersion::Prototype(const std::string& full_name) {
    return *m_factory.GetPrototype(Type(full_name));
}

std::unique_ptr<google::protobuf::Message> SchemaVersion::Parse(const std::string& full_name,
                                                                const std::string& text) {
    std::unique_ptr<google::protobuf::Message> message(Prototype(full_name).New());
    EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, message.get())) << text;
    return message;
}

}  // namespace corvida_store_test

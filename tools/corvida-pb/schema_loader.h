// Table definitions loaded at run time.
//
// A Schema holds the descriptor pool of the user's table files, loaded either
// from .proto files (through protobuf's compiler Importer) or from a
// serialized FileDescriptorSet, and the factory of their messages. Files that
// the user's files import but that are not on disk are served built in: the
// option file and protobuf's own google/protobuf/*.proto files.
#ifndef CORVIDA_PB_SCHEMA_LOADER_H_
#define CORVIDA_PB_SCHEMA_LOADER_H_

#include <memory>
#include <string>
#include <vector>

#include <google/protobuf/compiler/importer.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/descriptor_database.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/message.h>

namespace corvida_pb {

// The name of a .proto file read from standard input ("--proto -").
extern const char kStandardInputProtoName[];

class Schema {
public:
    ~Schema();

    Schema(const Schema&) = delete;
    Schema& operator=(const Schema&) = delete;

    // Parses the .proto files protos, as protoc does: files and imports are
    // searched in include_dirs, in order, or in the current directory when
    // there is none; a file of protos outside all of them is found through
    // its own directory. The option file and google/protobuf/ files missing
    // there are served built in. A relative name that is not a file on disk
    // is looked up on the search path and among the built-in files (so
    // "google/protobuf/timestamp.proto" works anywhere). "-" reads one file
    // from standard input, named kStandardInputProtoName. A file given twice,
    // under any spelling (relative or absolute path, "a/../a", a symbolic
    // or hard link), or given after a file that imports it, is loaded once.
    // Throws Failure with every error ("file:line:column: message").
    static std::unique_ptr<Schema> FromProtoFiles(const std::vector<std::string>& protos,
                                                  const std::vector<std::string>& include_dirs);

    // Builds every file of the serialized FileDescriptorSets at paths ("-"
    // for standard input), as protoc --descriptor_set_in does: a file that
    // several sets hold (an import each was made with) must be the same in
    // each. The option file and google/protobuf/ files that the sets lack
    // are taken from the runtime. Throws Failure.
    static std::unique_ptr<Schema> FromDescriptorSets(const std::vector<std::string>& paths);

    // The same for the bytes of one serialized FileDescriptorSet; source
    // names them in messages.
    static std::unique_ptr<Schema> FromDescriptorSetBytes(const std::string& data, const std::string& source);

    // The message type name: a full name, or a name that ends one full name
    // of the user's files after a "." (so "Player" or "example.Player").
    // Throws Failure listing the tables when there is none or more than one.
    const google::protobuf::Descriptor* FindTable(const std::string& name) const;

    // The top-level message called name (without package) of the first of
    // files() that declares one, as the library's schema checks find a
    // table; null when none does.
    const google::protobuf::Descriptor* FindTopLevelMessage(const std::string& name) const;

    // A new empty message of type, which must belong to this schema. The
    // message must be destroyed before the schema.
    std::unique_ptr<google::protobuf::Message> NewMessage(const google::protobuf::Descriptor* type);

    // The user's files: those named on the command line, or every file of the
    // descriptor set except the built-in ones.
    const std::vector<const google::protobuf::FileDescriptor*>& files() const { return m_files; }

    // How messages name file: its path on disk when it was loaded from one,
    // else its name in the pool.
    std::string FileDisplayName(const google::protobuf::FileDescriptor* file) const;

private:
    class SourceTree;
    class ImportErrors;
    class PoolErrors;

    Schema();

    // Builds the files of set; source[i] names where set.file(i) came from.
    static std::unique_ptr<Schema> FromFileSet(const google::protobuf::FileDescriptorSet& set,
                                               const std::vector<std::string>& sources);

    // Members are destroyed in reverse order: the factory before the pool,
    // the pool before its database and error collector.
    std::unique_ptr<SourceTree> m_tree;
    std::unique_ptr<ImportErrors> m_import_errors;
    std::unique_ptr<google::protobuf::compiler::Importer> m_importer;
    std::unique_ptr<google::protobuf::SimpleDescriptorDatabase> m_database;
    std::unique_ptr<PoolErrors> m_pool_errors;
    std::unique_ptr<google::protobuf::DescriptorPool> m_own_pool;
    const google::protobuf::DescriptorPool* m_pool = nullptr;  // the importer's or m_own_pool
    std::unique_ptr<google::protobuf::DynamicMessageFactory> m_factory;
    std::vector<const google::protobuf::FileDescriptor*> m_files;
};

// The schema blob of roots: a FileDescriptorSet of every file of roots and of
// every file they import, each once, imported files before their importers.
google::protobuf::FileDescriptorSet SchemaBlobOf(const std::vector<const google::protobuf::FileDescriptor*>& roots);

// Parses protobuf text format into msg (which is cleared first). Fields may
// be missing, required ones too. Throws Failure with every error as
// "source:line:column: message".
void ParseMessageText(const std::string& text, const std::string& source, google::protobuf::Message* msg);

// The same without throwing: false, with the errors in *errors, when text is
// not a message of msg's type. text starts at line first_line of source
// (from 1), which the errors' line numbers count from.
bool TryParseMessageText(const std::string& text, const std::string& source, int first_line,
                         google::protobuf::Message* msg, std::string* errors);

}  // namespace corvida_pb

#endif  // CORVIDA_PB_SCHEMA_LOADER_H_

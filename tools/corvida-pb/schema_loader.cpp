#include "corvida-pb/schema_loader.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <list>
#include <map>
#include <optional>
#include <set>
#include <tuple>
#include <utility>

#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/text_format.h>

#include "corvida-pb/builtin_files.h"
#include "corvida-pb/files.h"
#include "corvida-pb/status.h"

namespace corvida_pb {

using google::protobuf::Descriptor;
using google::protobuf::DescriptorPool;
using google::protobuf::FileDescriptor;
using google::protobuf::FileDescriptorProto;
using google::protobuf::FileDescriptorSet;
using google::protobuf::Message;
using google::protobuf::compiler::DiskSourceTree;

const char kStandardInputProtoName[] = "stdin.proto";

namespace {

std::string JoinLines(const std::vector<std::string>& lines) {
    std::string out;
    for (const std::string& line : lines) {
        if (!out.empty()) out += "\n";
        out += line;
    }
    return out;
}

// "file:line:column: message" with 1-based numbers, as protoc prints it;
// without position when the error concerns the file as a whole.
std::string PositionedError(const std::string& source, int line, int column, const std::string& message) {
    if (line < 0) return source + ": " + message;
    return source + ":" + std::to_string(line + 1) + ":" + std::to_string(column + 1) + ": " + message;
}

std::string DirectoryOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

bool IsUserFile(const FileDescriptor* file) { return !IsBuiltinProtoName(file->name()); }

void CollectByName(const Descriptor* type, const std::string& suffix, std::vector<const Descriptor*>* out) {
    const std::string& full = type->full_name();
    if (full.size() > suffix.size() && full.compare(full.size() - suffix.size(), suffix.size(), suffix) == 0) {
        out->push_back(type);
    }
    for (int i = 0; i < type->nested_type_count(); ++i) CollectByName(type->nested_type(i), suffix, out);
}

std::string TypeList(const std::vector<const Descriptor*>& types) {
    std::string out;
    for (const Descriptor* type : types) out += (out.empty() ? "" : ", ") + type->full_name();
    return out;
}

void AddWithImports(const FileDescriptor* file, std::set<std::string>* seen, FileDescriptorSet* set) {
    if (!seen->insert(file->name()).second) return;
    for (int i = 0; i < file->dependency_count(); ++i) AddWithImports(file->dependency(i), seen, set);
    file->CopyTo(set->add_file());
}

// True when the paths a and b name the same file on disk.
bool SameFile(const std::string& a, const std::string& b) {
    struct stat sa, sb;
    return ::stat(a.c_str(), &sa) == 0 && ::stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev &&
           sa.st_ino == sb.st_ino;
}

// The name under which the search path of disk finds the file proto. Throws
// Failure when proto cannot be read or the search path finds another file
// under that name first (the same file under another spelling is no other).
std::string VirtualName(DiskSourceTree* disk, const std::string& proto) {
    ReadFile(proto);  // reports a missing or unreadable file with the system's reason
    std::string virtual_name, shadowing;
    switch (disk->DiskFileToVirtualFile(proto, &virtual_name, &shadowing)) {
        case DiskSourceTree::SUCCESS: return virtual_name;
        case DiskSourceTree::SHADOWED:
            if (SameFile(proto, shadowing)) return virtual_name;
            throw Failure(proto + " is shadowed by " + shadowing +
                          ", which the search path finds first under the same name; give that file or reorder -I");
        case DiskSourceTree::CANNOT_OPEN: throw Failure("cannot read " + proto);
        case DiskSourceTree::NO_MAPPING: break;
    }
    throw Failure(proto + " lies in no directory of the search path");
}

bool IsOnDisk(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

bool IsRelative(const std::string& path) { return !path.empty() && path[0] != '/'; }

// True when tree finds a file called name.
bool CanOpen(google::protobuf::compiler::SourceTree* tree, const std::string& name) {
    std::unique_ptr<google::protobuf::io::ZeroCopyInputStream> stream(tree->Open(name));
    return stream != nullptr;
}

// True when the search path of disk maps the file at path.
bool IsMapped(DiskSourceTree* disk, const std::string& path) {
    std::string virtual_name, shadowing;
    return disk->DiskFileToVirtualFile(path, &virtual_name, &shadowing) != DiskSourceTree::NO_MAPPING;
}

// The name to show for the file called virtual_name in the pool: its path
// on disk where it has one, as protoc does.
std::string DiskName(DiskSourceTree* disk, const std::string& virtual_name) {
    if (virtual_name == kStandardInputProtoName) return DisplayName("-");
    std::string disk_file;
    return disk->VirtualFileToDiskFile(virtual_name, &disk_file) ? disk_file : virtual_name;
}

// Adds to database the runtime's copy of name (and of its imports) when the
// database lacks it and it is a built-in file.
void AddBuiltinIfMissing(const std::string& name, google::protobuf::SimpleDescriptorDatabase* database) {
    FileDescriptorProto present;
    if (database->FindFileByName(name, &present) || !IsBuiltinProtoName(name)) return;
    const FileDescriptor* file = DescriptorPool::generated_pool()->FindFileByName(name);
    if (file == nullptr) return;
    for (int i = 0; i < file->dependency_count(); ++i) AddBuiltinIfMissing(file->dependency(i)->name(), database);
    FileDescriptorProto proto;
    file->CopyTo(&proto);
    database->Add(proto);
}

// What identifies a file: its device and inode where the search path finds
// it on disk, else its name in the pool (the file read from standard input,
// a built-in file). One file reached under two names (a relative and an
// absolute path, "a/../a", a symbolic link) has one identity.
using FileIdentity = std::tuple<dev_t, ino_t, std::string>;

FileIdentity IdentityOf(DiskSourceTree* disk, const std::string& virtual_name) {
    std::string disk_file;
    struct stat st;
    if (virtual_name != kStandardInputProtoName && disk->VirtualFileToDiskFile(virtual_name, &disk_file) &&
        ::stat(disk_file.c_str(), &st) == 0) {
        return FileIdentity(st.st_dev, st.st_ino, "");
    }
    return FileIdentity(0, 0, virtual_name);
}

// Records the identity of file and of every file it imports in *loaded.
void RememberLoaded(DiskSourceTree* disk, const FileDescriptor* file,
                    std::map<FileIdentity, const FileDescriptor*>* loaded) {
    if (!loaded->emplace(IdentityOf(disk, file->name()), file).second) return;
    for (int i = 0; i < file->dependency_count(); ++i) RememberLoaded(disk, file->dependency(i), loaded);
}

}  // namespace

// Serves the file read from standard input first, then searches the disk,
// then the built-in files.
class Schema::SourceTree : public google::protobuf::compiler::SourceTree {
public:
    DiskSourceTree& disk() { return m_disk; }

    // Serves text under the name kStandardInputProtoName.
    void SetStandardInput(std::string text) { m_stdin = std::move(text); }

    google::protobuf::io::ZeroCopyInputStream* Open(const std::string& filename) override {
        if (filename == kStandardInputProtoName && m_stdin) return Serve(*m_stdin);
        google::protobuf::io::ZeroCopyInputStream* stream = m_disk.Open(filename);
        if (stream != nullptr) return stream;
        std::string text;
        if (!BuiltinProtoText(filename, &text)) return nullptr;
        m_texts.push_back(std::move(text));
        return Serve(m_texts.back());
    }

    std::string GetLastErrorMessage() override { return m_disk.GetLastErrorMessage(); }

private:
    google::protobuf::io::ZeroCopyInputStream* Serve(const std::string& text) {
        return new google::protobuf::io::ArrayInputStream(text.data(), static_cast<int>(text.size()));
    }

    DiskSourceTree m_disk;
    std::optional<std::string> m_stdin;
    std::list<std::string> m_texts;  // the streams handed out read from these
};

// Names a file by its path on disk where it has one, as protoc does.
class Schema::ImportErrors : public google::protobuf::compiler::MultiFileErrorCollector {
public:
    explicit ImportErrors(DiskSourceTree* disk) : m_disk(disk) {}

    void AddError(const std::string& filename, int line, int column, const std::string& message) override {
        m_lines.push_back(PositionedError(DiskName(m_disk, filename), line, column, message));
    }

    std::string TakeText() {
        std::string text = JoinLines(m_lines);
        m_lines.clear();
        return text;
    }

private:
    DiskSourceTree* m_disk;
    std::vector<std::string> m_lines;
};

class Schema::PoolErrors : public DescriptorPool::ErrorCollector {
public:
    void AddError(const std::string& filename, const std::string& element_name, const Message*, ErrorLocation,
                  const std::string& message) override {
        m_lines.push_back(filename + ": " + element_name + ": " + message);
    }

    std::string TakeText() {
        std::string text = JoinLines(m_lines);
        m_lines.clear();
        return text;
    }

private:
    std::vector<std::string> m_lines;
};

Schema::Schema() = default;
Schema::~Schema() = default;

std::unique_ptr<Schema> Schema::FromProtoFiles(const std::vector<std::string>& protos,
                                               const std::vector<std::string>& include_dirs) {
    std::unique_ptr<Schema> schema(new Schema);
    schema->m_tree.reset(new SourceTree);
    DiskSourceTree& disk = schema->m_tree->disk();
    for (const std::string& dir : include_dirs) disk.MapPath("", dir);
    if (include_dirs.empty()) disk.MapPath("", ".");
    // A file outside every directory of the search path is found through
    // its own directory.
    for (const std::string& proto : protos) {
        if (proto != "-" && !IsMapped(&disk, proto)) disk.MapPath("", DirectoryOf(proto));
    }

    schema->m_import_errors.reset(new ImportErrors(&disk));
    schema->m_importer.reset(
        new google::protobuf::compiler::Importer(schema->m_tree.get(), schema->m_import_errors.get()));
    schema->m_pool = schema->m_importer->pool();

    // Every file in the pool by its identity, imported ones included: a
    // file given again, under any name, or given after a file that imports
    // it, is the file already loaded (importing it under a second name
    // would define everything in it twice).
    std::map<FileIdentity, const FileDescriptor*> loaded;
    for (const std::string& proto : protos) {
        std::string virtual_name;
        if (proto == "-") {
            schema->m_tree->SetStandardInput(ReadFile(proto));
            virtual_name = kStandardInputProtoName;
        } else if (!IsOnDisk(proto) && IsRelative(proto) && CanOpen(schema->m_tree.get(), proto)) {
            virtual_name = proto;  // a name on the search path, or a built-in file, as protoc takes it
        } else {
            virtual_name = VirtualName(&disk, proto);
        }
        auto it = loaded.find(IdentityOf(&disk, virtual_name));
        const FileDescriptor* file = it != loaded.end() ? it->second : schema->m_importer->Import(virtual_name);
        if (file == nullptr) {
            const std::string errors = schema->m_import_errors->TakeText();
            throw Failure(errors.empty() ? "cannot load " + DisplayName(proto) : errors);
        }
        RememberLoaded(&disk, file, &loaded);
        const auto& files = schema->m_files;
        if (std::find(files.begin(), files.end(), file) == files.end()) schema->m_files.push_back(file);
    }
    schema->m_factory.reset(new google::protobuf::DynamicMessageFactory(schema->m_pool));
    return schema;
}

std::unique_ptr<Schema> Schema::FromDescriptorSets(const std::vector<std::string>& paths) {
    FileDescriptorSet merged;
    std::vector<std::string> sources;
    std::map<std::string, size_t> index;  // file name -> its place in merged
    for (const std::string& path : paths) {
        const std::string source = DisplayName(path);
        FileDescriptorSet set;
        if (!set.ParseFromString(ReadFile(path))) throw Failure(source + " is not a serialized FileDescriptorSet");
        std::set<std::string> own;
        for (const FileDescriptorProto& file : set.file()) {
            if (!own.insert(file.name()).second) throw Failure(source + " holds the file " + file.name() + " twice");
            auto it = index.find(file.name());
            if (it == index.end()) {
                index.emplace(file.name(), static_cast<size_t>(merged.file_size()));
                *merged.add_file() = file;
                sources.push_back(source);
            } else if (merged.file(static_cast<int>(it->second)).SerializeAsString() != file.SerializeAsString()) {
                throw Failure(source + " holds another version of the file " + file.name() + " than " +
                              sources[it->second] + " does");
            }
        }
    }
    return FromFileSet(merged, sources);
}

std::unique_ptr<Schema> Schema::FromDescriptorSetBytes(const std::string& data, const std::string& source) {
    FileDescriptorSet set;
    if (!set.ParseFromString(data)) throw Failure(source + " is not a serialized FileDescriptorSet");
    std::set<std::string> names;
    for (const FileDescriptorProto& file : set.file()) {
        if (!names.insert(file.name()).second) throw Failure(source + " holds the file " + file.name() + " twice");
    }
    return FromFileSet(set, std::vector<std::string>(static_cast<size_t>(set.file_size()), source));
}

std::unique_ptr<Schema> Schema::FromFileSet(const FileDescriptorSet& set, const std::vector<std::string>& sources) {
    std::unique_ptr<Schema> schema(new Schema);
    schema->m_database.reset(new google::protobuf::SimpleDescriptorDatabase);
    for (int i = 0; i < set.file_size(); ++i) {
        if (!schema->m_database->Add(set.file(i))) {
            throw Failure(sources[static_cast<size_t>(i)] + ": the file " + set.file(i).name() +
                          " cannot be added: it redefines a name of an earlier file, or is invalid");
        }
    }
    for (const FileDescriptorProto& file : set.file()) {
        for (const std::string& dependency : file.dependency()) {
            AddBuiltinIfMissing(dependency, schema->m_database.get());
        }
    }

    schema->m_pool_errors.reset(new PoolErrors);
    schema->m_own_pool.reset(new DescriptorPool(schema->m_database.get(), schema->m_pool_errors.get()));
    schema->m_pool = schema->m_own_pool.get();
    for (int i = 0; i < set.file_size(); ++i) {
        const FileDescriptor* file = schema->m_pool->FindFileByName(set.file(i).name());
        if (file == nullptr) {
            const std::string errors = schema->m_pool_errors->TakeText();
            throw Failure(sources[static_cast<size_t>(i)] + ": the file " + set.file(i).name() + " cannot be built" +
                          (errors.empty() ? "" : ":\n" + errors));
        }
        if (IsUserFile(file)) schema->m_files.push_back(file);
    }
    schema->m_factory.reset(new google::protobuf::DynamicMessageFactory(schema->m_pool));
    return schema;
}

const Descriptor* Schema::FindTable(const std::string& name) const {
    const Descriptor* exact = m_pool->FindMessageTypeByName(name);
    if (exact != nullptr) return exact;

    std::vector<const Descriptor*> matches;
    std::vector<const Descriptor*> tables;
    for (const FileDescriptor* file : m_files) {
        for (int i = 0; i < file->message_type_count(); ++i) {
            CollectByName(file->message_type(i), "." + name, &matches);
            tables.push_back(file->message_type(i));
        }
    }
    if (matches.size() == 1) return matches[0];
    if (matches.empty()) {
        throw Failure(
            "no message type \"" + name + "\" in the loaded files" +
            (tables.empty() ? std::string(", which declare no message type") : "; they declare: " + TypeList(tables)));
    }
    throw Failure("the table name \"" + name + "\" is ambiguous: " + TypeList(matches) + "; give the full name");
}

const Descriptor* Schema::FindTopLevelMessage(const std::string& name) const {
    for (const FileDescriptor* file : m_files) {
        const Descriptor* type = file->FindMessageTypeByName(name);
        if (type != nullptr) return type;
    }
    return nullptr;
}

std::string Schema::FileDisplayName(const FileDescriptor* file) const {
    return m_tree ? DiskName(&m_tree->disk(), file->name()) : file->name();
}

std::unique_ptr<Message> Schema::NewMessage(const Descriptor* type) {
    return std::unique_ptr<Message>(m_factory->GetPrototype(type)->New());
}

FileDescriptorSet SchemaBlobOf(const std::vector<const FileDescriptor*>& roots) {
    FileDescriptorSet set;
    std::set<std::string> seen;
    for (const FileDescriptor* root : roots) AddWithImports(root, &seen, &set);
    return set;
}

bool TryParseMessageText(const std::string& text, const std::string& source, int first_line, Message* msg,
                         std::string* errors) {
    class TextErrors : public google::protobuf::io::ErrorCollector {
    public:
        TextErrors(const std::string& source, int offset) : m_source(source), m_offset(offset) {}
        void AddError(int line, google::protobuf::io::ColumnNumber column, const std::string& message) override {
            m_lines.push_back(PositionedError(m_source, line < 0 ? line : line + m_offset, column, message));
        }
        std::string Text() const { return JoinLines(m_lines); }

    private:
        const std::string& m_source;
        int m_offset;
        std::vector<std::string> m_lines;
    };

    TextErrors collected(source, first_line - 1);
    google::protobuf::TextFormat::Parser parser;
    parser.RecordErrorsTo(&collected);
    parser.AllowPartialMessage(true);
    if (parser.ParseFromString(text, msg)) return true;
    *errors = collected.Text();
    if (errors->empty()) *errors = source + ": not a " + msg->GetTypeName() + " in text format";
    return false;
}

void ParseMessageText(const std::string& text, const std::string& source, Message* msg) {
    std::string errors;
    if (!TryParseMessageText(text, source, 1, msg, &errors)) throw Failure(errors);
}

}  // namespace corvida_pb

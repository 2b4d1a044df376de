// Compatibility of a server's message type with the client's compiled type.
//
// Server types are the client's own files copied into a descriptor pool of
// their own, edited where a test needs a difference.
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <google/protobuf/descriptor.pb.h>
#include <gtest/gtest.h>

#include "corvidaservice.optionv1.pb.h"
#include "protobuf_api/protobuf_util.h"
#include "support/log_capture.h"
#include "tables2.pb.h"
#include "tables3.pb.h"

namespace {

using corvida_test::LogCapture;
using google::protobuf::Descriptor;
using google::protobuf::DescriptorPool;
using google::protobuf::DescriptorProto;
using google::protobuf::FieldDescriptorProto;
using google::protobuf::FileDescriptor;
using google::protobuf::FileDescriptorProto;
using PROTOBUF_UTIL::CompareMessageMeta;
using PROTOBUF_UTIL::is_vecEqual;

constexpr int kError = PLOG_PRIORITY_ERROR;
constexpr int kDebug = PLOG_PRIORITY_DEBUG;
constexpr int kTrace = PLOG_PRIORITY_TRACE;

// ---------------------------------------------------------------------------
// Server schemas.
// ---------------------------------------------------------------------------

FileDescriptorProto FileOf(const FileDescriptor* file) {
    FileDescriptorProto proto;
    file->CopyTo(&proto);
    return proto;
}

FileDescriptorProto FileOf(const Descriptor* type) { return FileOf(type->file()); }

DescriptorProto* MessageIn(FileDescriptorProto& file, const std::string& name) {
    for (DescriptorProto& message : *file.mutable_message_type()) {
        if (message.name() == name) return &message;
    }
    throw std::invalid_argument("no message " + name + " in " + file.name());
}

FieldDescriptorProto* FieldIn(DescriptorProto* message, const std::string& name) {
    for (FieldDescriptorProto& field : *message->mutable_field()) {
        if (field.name() == name) return &field;
    }
    throw std::invalid_argument("no field " + name + " in " + message->name());
}

void RemoveField(DescriptorProto* message, const std::string& name) {
    auto* fields = message->mutable_field();
    for (int i = 0; i < fields->size(); ++i) {
        if (fields->Get(i).name() == name) {
            fields->DeleteSubrange(i, 1);
            return;
        }
    }
    throw std::invalid_argument("no field " + name + " in " + message->name());
}

google::protobuf::MessageOptions* OptionsOf(FileDescriptorProto& file, const std::string& message) {
    return MessageIn(file, message)->mutable_options();
}

void SetIndexes(FileDescriptorProto& file, const std::string& message, const std::vector<std::string>& indexes) {
    google::protobuf::MessageOptions* options = OptionsOf(file, message);
    options->ClearExtension(corvidaservice::corvida_index);
    for (const std::string& index : indexes) options->AddExtension(corvidaservice::corvida_index, index);
}

// A pool that holds the server's files on top of descriptor.proto and the
// option file as compiled in.
class ServerPool {
public:
    explicit ServerPool(const std::vector<FileDescriptorProto>& files) {
        Build(FileOf(FileDescriptorProto::descriptor()->file()));
        Build(FileOf(DescriptorPool::generated_pool()->FindFileByName("corvidaservice.optionv1.proto")));
        for (const FileDescriptorProto& file : files) Build(file);
    }

    // The server's type of that full name; throws when there is none.
    const Descriptor* Type(const std::string& full_name) const {
        const Descriptor* type = m_pool.FindMessageTypeByName(full_name);
        if (type == nullptr) throw std::invalid_argument("no server type " + full_name);
        return type;
    }

private:
    void Build(const FileDescriptorProto& file) {
        if (m_pool.BuildFile(file) == nullptr) throw std::invalid_argument("cannot build " + file.name());
    }

    DescriptorPool m_pool;
};

// Compares the server's twin of client, taken from files, with client.
int Compare(const std::vector<FileDescriptorProto>& files, const Descriptor* client, LogCapture& log) {
    ServerPool pool(files);
    const int result = CompareMessageMeta(pool.Type(client->full_name()), client, log.category());
    // Every line, whichever check wrote it, names the operation.
    for (const auto& line : log.lines()) EXPECT_EQ(line.func, "CompareMessageMeta") << line.text;
    return result;
}

// The client's file of client edited by edit, compared with client.
int CompareEdited(const Descriptor* client, const std::function<void(FileDescriptorProto&)>& edit, LogCapture& log) {
    FileDescriptorProto file = FileOf(client);
    edit(file);
    return Compare({file}, client, log);
}

std::string NullPointerText() {
    char text[32];
    std::snprintf(text, sizeof(text), "%p", static_cast<void*>(nullptr));
    return text;
}

// Every message type of file, nested ones (map entries included) too.
void CollectTypes(const Descriptor* type, std::vector<const Descriptor*>& types) {
    types.push_back(type);
    for (int i = 0; i < type->nested_type_count(); ++i) CollectTypes(type->nested_type(i), types);
}

std::vector<const Descriptor*> TypesOf(const FileDescriptor* file) {
    std::vector<const Descriptor*> types;
    for (int i = 0; i < file->message_type_count(); ++i) CollectTypes(file->message_type(i), types);
    return types;
}

// ---------------------------------------------------------------------------
// Arguments and identical schemas.
// ---------------------------------------------------------------------------

TEST(CompareMessageMeta, NullArgumentsAreRefusedSilently) {
    const Descriptor* type = corvida::test::Player2::descriptor();
    LogCapture log;
    EXPECT_EQ(CompareMessageMeta(nullptr, type, log.category()), -1);
    EXPECT_EQ(CompareMessageMeta(type, nullptr, log.category()), -1);
    EXPECT_EQ(CompareMessageMeta(nullptr, nullptr, log.category()), -1);
    EXPECT_EQ(CompareMessageMeta(type, type, nullptr), -1);
    EXPECT_TRUE(log.lines().empty()) << log.Dump();
}

TEST(CompareMessageMeta, EveryTestTableMatchesItsOwnCopy) {
    for (const FileDescriptor* file :
         {corvida::test::Player2::descriptor()->file(), corvida::test3::Player3::descriptor()->file()}) {
        ServerPool pool({FileOf(file)});
        for (const Descriptor* client : TypesOf(file)) {
            LogCapture log;
            EXPECT_EQ(CompareMessageMeta(pool.Type(client->full_name()), client, log.category()), 0)
                << client->full_name() << "\n"
                << log.Dump();
            EXPECT_TRUE(log.Texts(kError).empty()) << log.Dump();
        }
    }
}

TEST(CompareMessageMeta, SameDescriptorOnBothSidesMatches) {
    LogCapture log;
    EXPECT_EQ(
        CompareMessageMeta(corvida::test::Player2::descriptor(), corvida::test::Player2::descriptor(), log.category()),
        0);
}

TEST(CompareMessageMeta, TraceAndDebugLinesDescribeTheComparedOptions) {
    LogCapture log;
    ASSERT_EQ(Compare({FileOf(corvida::test::Player2::descriptor())}, corvida::test::Player2::descriptor(), log), 0);
    EXPECT_TRUE(log.Has(kTrace, "svr primary key:zone, uid, client primary key:zone, uid")) << log.Dump();
    EXPECT_TRUE(log.Has(kTrace, "svr suite name:, client suite name:"));
    EXPECT_TRUE(log.Has(kTrace, "svr suite md5:, client suite md5:"));
    EXPECT_TRUE(log.Has(kTrace, "svr field name:zone corvida_crypto:0 label:1"));
    EXPECT_TRUE(log.Has(kTrace, "svr field name:tags corvida_crypto:0 label:3"));
    EXPECT_TRUE(log.Has(kTrace, "svr field name:zone corvida_crypto:0, client field name:zone corvida_crypto:0"));
    EXPECT_EQ(log.Texts(kDebug), std::vector<std::string>{"svr sharding key:uid, client sharding key:uid"});
    EXPECT_TRUE(log.Texts(kError).empty());
}

TEST(CompareMessageMeta, RequiredFieldTraceNamesTheServerType) {
    LogCapture log;
    ASSERT_EQ(Compare({FileOf(corvida::test::Versioned2::descriptor())}, corvida::test::Versioned2::descriptor(), log),
              0);
    EXPECT_TRUE(log.Has(kTrace, "svr field name:id corvida_crypto:0 label:2")) << log.Dump();
    EXPECT_TRUE(
        log.Has(kTrace, "svr field name:id corvida_crypto:0, client field name:id corvida_crypto:0 svr type:5"));
    EXPECT_TRUE(log.Has(
        kTrace, "svr field name:origin corvida_crypto:0, client field name:origin corvida_crypto:0 svr type:11"));
}

TEST(CompareMessageMeta, EncryptedFieldsTraceTheirFlags) {
    LogCapture log;
    ASSERT_EQ(Compare({FileOf(corvida::test::Secret2::descriptor())}, corvida::test::Secret2::descriptor(), log), 0);
    EXPECT_TRUE(log.Has(kTrace, "svr suite name:aes128, client suite name:aes128")) << log.Dump();
    EXPECT_TRUE(log.Has(kTrace,
                        "svr suite md5:b4ffcb23737cec315a4a4d1aa2a620ce, client suite "
                        "md5:b4ffcb23737cec315a4a4d1aa2a620ce"));
    EXPECT_TRUE(log.Has(kTrace, "svr field name:token corvida_crypto:1 label:1"));
    EXPECT_TRUE(log.Has(kTrace, "svr field name:token corvida_crypto:1, client field name:token corvida_crypto:1"));
}

TEST(CompareMessageMeta, ResultDoesNotDependOnWhatTheCategoryWrites) {
    const Descriptor* client = corvida::test::Player2::descriptor();
    auto edit = [](FileDescriptorProto& file) {
        OptionsOf(file, "Player2")->SetExtension(corvidaservice::corvida_primary_key, "zone");
    };
    LogCapture silent(PLOG_PRIORITY_FATAL);
    EXPECT_EQ(CompareEdited(client, edit, silent), -4);
    EXPECT_TRUE(silent.lines().empty());
    LogCapture all;
    EXPECT_EQ(CompareEdited(client, edit, all), -4);
    EXPECT_FALSE(all.lines().empty());
}

// ---------------------------------------------------------------------------
// Syntax, type name, primary key, cipher suite.
// ---------------------------------------------------------------------------

TEST(CompareMessageMeta, SyntaxDifferenceIsMinus3) {
    // The server's NoKey2 alone, in a proto3 file of the same package.
    FileDescriptorProto client_file = FileOf(corvida::test::NoKey2::descriptor());
    FileDescriptorProto file;
    file.set_name("server3.proto");
    file.set_package(client_file.package());
    file.set_syntax("proto3");
    *file.add_message_type() = *MessageIn(client_file, "NoKey2");
    LogCapture log;
    EXPECT_EQ(Compare({file}, corvida::test::NoKey2::descriptor(), log), -3);
    EXPECT_EQ(log.Texts(kError), std::vector<std::string>{"svr proto syntax:3 != client proto syntax:2."});
}

TEST(CompareMessageMeta, TypeNameDifferenceIsMinus4) {
    ServerPool pool({FileOf(corvida::test::Player2::descriptor())});
    LogCapture log;
    EXPECT_EQ(CompareMessageMeta(pool.Type("corvida.test.Player2"), corvida::test::Item2::descriptor(), log.category()),
              -4);
    EXPECT_EQ(log.Texts(kError),
              std::vector<std::string>{"message type not match, svr:corvida.test.Player2 client:corvida.test.Item2."});
}

TEST(CompareMessageMeta, PrimaryKeyCountDifferenceIsMinus4) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::Player2::descriptor(),
                  [](FileDescriptorProto& file) {
                      OptionsOf(file, "Player2")->SetExtension(corvidaservice::corvida_primary_key, "zone");
                  },
                  log),
              -4);
    EXPECT_EQ(log.Texts(kError),
              std::vector<std::string>{"svr primary key:zone, client primary key:zone, uid not match"});
    EXPECT_TRUE(log.Has(kTrace, "svr primary key:zone, client primary key:zone, uid"));
}

TEST(CompareMessageMeta, PrimaryKeyOnOneSideOnlyIsMinus4) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::NoKey2::descriptor(),
                  [](FileDescriptorProto& file) {
                      OptionsOf(file, "NoKey2")->SetExtension(corvidaservice::corvida_primary_key, "a");
                  },
                  log),
              -4);
    EXPECT_EQ(log.Texts(kError), std::vector<std::string>{"svr primary key:a, client primary key: not match"});
}

TEST(CompareMessageMeta, PrimaryKeyOrderDoesNotMatter) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::Player2::descriptor(),
                  [](FileDescriptorProto& file) {
                      OptionsOf(file, "Player2")->SetExtension(corvidaservice::corvida_primary_key, "uid,zone");
                  },
                  log),
              0)
        << log.Dump();
}

TEST(CompareMessageMeta, MissingServerKeyIsMinus6WithTheOptionTextsInTheirOrder) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::Player2::descriptor(),
                  [](FileDescriptorProto& file) {
                      OptionsOf(file, "Player2")->SetExtension(corvidaservice::corvida_primary_key, "zone, level");
                  },
                  log),
              -6);
    // The client's option text after "field:", the missing name last.
    EXPECT_EQ(
        log.Texts(kError),
        std::vector<std::string>{"svr primary key:zone, level, field:zone, uid, client primary key:level, not match"});
}

TEST(CompareMessageMeta, DuplicateServerKeysCountOnlyAsNames) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::Player2::descriptor(),
                  [](FileDescriptorProto& file) {
                      OptionsOf(file, "Player2")->SetExtension(corvidaservice::corvida_primary_key, "zone,zone");
                  },
                  log),
              0)
        << log.Dump();
}

TEST(CompareMessageMeta, CipherSuiteNameDifferenceIsMinus7) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::Secret2::descriptor(),
                  [](FileDescriptorProto& file) {
                      OptionsOf(file, "Secret2")->SetExtension(corvidaservice::corvida_field_cipher_suite, "aes256");
                  },
                  log),
              -7);
    EXPECT_EQ(log.Texts(kError),
              std::vector<std::string>{"strSvrCipherSuite:aes256 strClientCipherSuite:aes128 not match."});
}

TEST(CompareMessageMeta, CipherDigestDifferenceIsMinus8) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::Secret2::descriptor(),
                  [](FileDescriptorProto& file) {
                      OptionsOf(file, "Secret2")->SetExtension(corvidaservice::corvida_cipher_md5, "beef");
                  },
                  log),
              -8);
    EXPECT_EQ(log.Texts(kError),
              std::vector<std::string>{
                  "strSvrCipherMd5:beef strClientCipherMd5:b4ffcb23737cec315a4a4d1aa2a620ce not match."});
}

// ---------------------------------------------------------------------------
// Optional and repeated server fields.
// ---------------------------------------------------------------------------

TEST(CompareMessageMeta, OptionalFieldNameDifferenceIsMinus10) {
    LogCapture log;
    EXPECT_EQ(
        CompareEdited(
            corvida::test::Player2::descriptor(),
            [](FileDescriptorProto& file) { FieldIn(MessageIn(file, "Player2"), "rating")->set_name("score"); }, log),
        -10);
    EXPECT_EQ(log.Texts(kError),
              std::vector<std::string>{"optional field but name( svrField->full_name:corvida.test.Player2.score. "
                                       "clientField->full_name():corvida.test.Player2.rating ) not match or type "
                                       "(svrField->type():1. clientField->type():1) not match"});
}

TEST(CompareMessageMeta, OptionalFieldTypeDifferenceIsMinus10) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::Player2::descriptor(),
                  [](FileDescriptorProto& file) {
                      FieldIn(MessageIn(file, "Player2"), "rating")->set_type(FieldDescriptorProto::TYPE_FLOAT);
                  },
                  log),
              -10);
    EXPECT_EQ(log.Texts(kError),
              std::vector<std::string>{"optional field but name( svrField->full_name:corvida.test.Player2.rating. "
                                       "clientField->full_name():corvida.test.Player2.rating ) not match or type "
                                       "(svrField->type():2. clientField->type():1) not match"});
}

TEST(CompareMessageMeta, RepeatedFieldTypeDifferenceIsMinus10) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::Player2::descriptor(),
                  [](FileDescriptorProto& file) {
                      FieldIn(MessageIn(file, "Player2"), "tags")->set_type(FieldDescriptorProto::TYPE_BYTES);
                  },
                  log),
              -10);
    EXPECT_EQ(log.Texts(kError).size(), 1u) << log.Dump();
}

TEST(CompareMessageMeta, Proto3OptionalFieldTypeDifferenceIsMinus10) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test3::Player3::descriptor(),
                  [](FileDescriptorProto& file) {
                      FieldIn(MessageIn(file, "Player3"), "opt_level")->set_type(FieldDescriptorProto::TYPE_INT64);
                  },
                  log),
              -10);
    EXPECT_EQ(log.Texts(kError),
              std::vector<std::string>{"optional field but name( svrField->full_name:corvida.test3.Player3.opt_level. "
                                       "clientField->full_name():corvida.test3.Player3.opt_level ) not match or type "
                                       "(svrField->type():3. clientField->type():5) not match"});
}

TEST(CompareMessageMeta, OptionalCryptoDifferenceIsMinus11AndPrintsTheTypes) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::Secret2::descriptor(),
                  [](FileDescriptorProto& file) {
                      FieldIn(MessageIn(file, "Secret2"), "plain")
                          ->mutable_options()
                          ->SetExtension(corvidaservice::corvida_crypto, true);
                  },
                  log),
              -11);
    // The two numbers are the field types (9 = string), not the flags.
    EXPECT_EQ(log.Texts(kError),
              std::vector<std::string>{"optional fieldsvrField->full_name:corvida.test.Secret2.plain. "
                                       "clientField->full_name():corvida.test.Secret2.plain svr crypto:9, client "
                                       "crypto:9 not match"});
    EXPECT_TRUE(log.Has(kTrace, "svr field name:plain corvida_crypto:1, client field name:plain corvida_crypto:0"));
}

TEST(CompareMessageMeta, ServerDroppingEncryptionIsMinus11) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::Secret2::descriptor(),
                  [](FileDescriptorProto& file) { FieldIn(MessageIn(file, "Secret2"), "pin")->clear_options(); }, log),
              -11);
    EXPECT_EQ(log.Texts(kError),
              std::vector<std::string>{"optional fieldsvrField->full_name:corvida.test.Secret2.pin. "
                                       "clientField->full_name():corvida.test.Secret2.pin svr crypto:5, client "
                                       "crypto:5 not match"});
}

TEST(CompareMessageMeta, NestedDifferenceUnderOptionalFieldIsMinus12AfterTheNestedLine) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::Player2::descriptor(),
                  [](FileDescriptorProto& file) {
                      OptionsOf(file, "Position2")->SetExtension(corvidaservice::corvida_primary_key, "x");
                  },
                  log),
              -12);
    // The nested comparison's own line comes first.
    EXPECT_EQ(log.Texts(kError),
              (std::vector<std::string>{"svr primary key:x, client primary key: not match",
                                        "CmpMsg(corvida.test.Player2.pos, corvida.test.Player2.pos) failed: -4"}));
    // Every line, nested ones included, names the operation.
    for (const auto& line : log.lines()) {
        EXPECT_EQ(line.func, "CompareMessageMeta") << line.text;
        EXPECT_EQ(line.file, "corvida/src/protobuf_api/protobuf_util") << line.text;
    }
}

TEST(CompareMessageMeta, NestedDifferenceUnderRepeatedFieldIsMinus12) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::Player2::descriptor(),
                  [](FileDescriptorProto& file) {
                      FieldIn(MessageIn(file, "Item2"), "count")->set_type(FieldDescriptorProto::TYPE_UINT32);
                  },
                  log),
              -12);
    ASSERT_EQ(log.Texts(kError).size(), 2u) << log.Dump();
    EXPECT_EQ(log.Texts(kError)[1], "CmpMsg(corvida.test.Player2.items, corvida.test.Player2.items) failed: -10");
}

TEST(CompareMessageMeta, NestedDifferenceInsideAGroupIsMinus12) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::Grouped2::descriptor(),
                  [](FileDescriptorProto& file) {
                      FieldIn(MessageIn(file, "Grouped2")->mutable_nested_type(0), "a")
                          ->set_type(FieldDescriptorProto::TYPE_INT64);
                  },
                  log),
              -12);
    ASSERT_EQ(log.Texts(kError).size(), 2u) << log.Dump();
    EXPECT_EQ(log.Texts(kError)[1], "CmpMsg(corvida.test.Grouped2.extra, corvida.test.Grouped2.extra) failed: -10");
}

TEST(CompareMessageMeta, OptionalServerFieldMissingInClientPassesSilently) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::FloatKeys2::descriptor(),
                  [](FileDescriptorProto& file) {
                      FieldDescriptorProto* extra = MessageIn(file, "FloatKeys2")->add_field();
                      extra->set_name("extra");
                      extra->set_number(5);
                      extra->set_label(FieldDescriptorProto::LABEL_OPTIONAL);
                      extra->set_type(FieldDescriptorProto::TYPE_INT32);
                  },
                  log),
              0);
    EXPECT_TRUE(log.Texts(kError).empty()) << log.Dump();
    EXPECT_TRUE(log.Has(kTrace, "svr field name:extra corvida_crypto:0 label:1"));
}

TEST(CompareMessageMeta, ClientFieldsTheServerLacksAreIgnored) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::Player2::descriptor(),
                  [](FileDescriptorProto& file) {
                      RemoveField(MessageIn(file, "Player2"), "rating");
                      RemoveField(MessageIn(file, "Player2"), "stats");
                  },
                  log),
              0)
        << log.Dump();
}

TEST(CompareMessageMeta, OptionalServerFieldMatchesRepeatedClientField) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::Player2::descriptor(),
                  [](FileDescriptorProto& file) {
                      FieldIn(MessageIn(file, "Player2"), "tags")->set_label(FieldDescriptorProto::LABEL_OPTIONAL);
                  },
                  log),
              0)
        << log.Dump();
}

TEST(CompareMessageMeta, RepeatedServerFieldMatchesOptionalClientField) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::Player2::descriptor(),
                  [](FileDescriptorProto& file) {
                      FieldIn(MessageIn(file, "Player2"), "level")->set_label(FieldDescriptorProto::LABEL_REPEATED);
                  },
                  log),
              0)
        << log.Dump();
}

TEST(CompareMessageMeta, OptionalServerFieldMatchesRequiredClientField) {
    LogCapture log;
    EXPECT_EQ(
        CompareEdited(
            corvida::test::Versioned2::descriptor(),
            [](FileDescriptorProto& file) {
                FieldIn(MessageIn(file, "Versioned2"), "version")->set_label(FieldDescriptorProto::LABEL_OPTIONAL);
            },
            log),
        0)
        << log.Dump();
}

// ---------------------------------------------------------------------------
// Required server fields.
// ---------------------------------------------------------------------------

TEST(CompareMessageMeta, RequiredServerFieldMissingInClientIsMinus13) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::Versioned2::descriptor(),
                  [](FileDescriptorProto& file) {
                      FieldDescriptorProto* extra = MessageIn(file, "Versioned2")->add_field();
                      extra->set_name("extra");
                      extra->set_number(99);
                      extra->set_label(FieldDescriptorProto::LABEL_REQUIRED);
                      extra->set_type(FieldDescriptorProto::TYPE_INT32);
                  },
                  log),
              -13);
    EXPECT_EQ(log.Texts(kError), std::vector<std::string>{"NULL == clientField:" + NullPointerText() +
                                                          " idx:4, svr_name:corvida.test.Versioned2.extra."});
}

TEST(CompareMessageMeta, RequiredFieldNameDifferenceIsMinus14) {
    LogCapture log;
    EXPECT_EQ(
        CompareEdited(
            corvida::test::Versioned2::descriptor(),
            [](FileDescriptorProto& file) { FieldIn(MessageIn(file, "Versioned2"), "version")->set_name("revision"); },
            log),
        -14);
    EXPECT_EQ(log.Texts(kError), std::vector<std::string>{"svrField->full_name:corvida.test.Versioned2.revision. "
                                                          "clientField->full_name():corvida.test.Versioned2.version "
                                                          "not match"});
}

TEST(CompareMessageMeta, RequiredFieldTypeDifferenceIsMinus15) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::Versioned2::descriptor(),
                  [](FileDescriptorProto& file) {
                      FieldIn(MessageIn(file, "Versioned2"), "version")->set_type(FieldDescriptorProto::TYPE_INT64);
                  },
                  log),
              -15);
    EXPECT_EQ(log.Texts(kError), std::vector<std::string>{"svrField->type():3. clientField->type():5 not match"});
}

TEST(CompareMessageMeta, RequiredServerFieldAgainstOptionalClientFieldIsMinus16) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::Player2::descriptor(),
                  [](FileDescriptorProto& file) {
                      FieldIn(MessageIn(file, "Player2"), "zone")->set_label(FieldDescriptorProto::LABEL_REQUIRED);
                  },
                  log),
              -16);
    EXPECT_EQ(log.Texts(kError), std::vector<std::string>{"svrField->label():2. clientField->label():1 not match"});
}

TEST(CompareMessageMeta, RequiredCryptoDifferenceIsMinus17WithTheFlags) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::Versioned2::descriptor(),
                  [](FileDescriptorProto& file) {
                      FieldIn(MessageIn(file, "Versioned2"), "id")
                          ->mutable_options()
                          ->SetExtension(corvidaservice::corvida_crypto, true);
                  },
                  log),
              -17);
    EXPECT_EQ(log.Texts(kError),
              std::vector<std::string>{"optional field but name( svrField->full_name:corvida.test.Versioned2.id. "
                                       "clientField->full_name():corvida.test.Versioned2.id ) svr crypto:1, client "
                                       "crypto:0 not match"});
    EXPECT_TRUE(
        log.Has(kTrace, "svr field name:id corvida_crypto:1, client field name:id corvida_crypto:0 svr type:5"));
}

TEST(CompareMessageMeta, NestedDifferenceUnderRequiredFieldIsMinus18) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::Versioned2::descriptor(),
                  [](FileDescriptorProto& file) {
                      // Without the optional pos (field 3) the required
                      // origin is the first field that reaches Position2.
                      RemoveField(MessageIn(file, "Versioned2"), "pos");
                      OptionsOf(file, "Position2")->SetExtension(corvidaservice::corvida_primary_key, "x");
                  },
                  log),
              -18);
    EXPECT_EQ(log.Texts(kError),
              (std::vector<std::string>{"svr primary key:x, client primary key: not match",
                                        "CmpMsg(corvida.test.Versioned2.origin, corvida.test.Versioned2.origin) "
                                        "failed: -4"}));
}

// ---------------------------------------------------------------------------
// Indexes and sharding key.
// ---------------------------------------------------------------------------

TEST(CompareMessageMeta, IndexCountDifferenceIsMinus19) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::Player2::descriptor(),
                  [](FileDescriptorProto& file) { SetIndexes(file, "Player2", {"by_name(zone,name)"}); }, log),
              -19);
    EXPECT_EQ(log.Texts(kError), std::vector<std::string>{"svr's index num:1, client's index num:2 not match."});
}

TEST(CompareMessageMeta, TypesWithoutIndexesIgnoreTheShardingKey) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::MixedKeys2::descriptor(),
                  [](FileDescriptorProto& file) {
                      OptionsOf(file, "MixedKeys2")->SetExtension(corvidaservice::corvida_sharding_key, "name");
                  },
                  log),
              0);
    EXPECT_TRUE(log.Texts(kDebug).empty()) << log.Dump();
}

TEST(CompareMessageMeta, ClientWithoutShardingKeyAcceptsTheServers) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::Indexed2::descriptor(),
                  [](FileDescriptorProto& file) {
                      OptionsOf(file, "Indexed2")->SetExtension(corvidaservice::corvida_sharding_key, "id");
                  },
                  log),
              0);
    EXPECT_EQ(log.Texts(kDebug), std::vector<std::string>{"svr sharding key:id, client sharding key:"});
}

TEST(CompareMessageMeta, ShardingKeyDifferenceIsMinus20) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::Player2::descriptor(),
                  [](FileDescriptorProto& file) {
                      OptionsOf(file, "Player2")->SetExtension(corvidaservice::corvida_sharding_key, "zone");
                  },
                  log),
              -20);
    EXPECT_EQ(log.Texts(kDebug), std::vector<std::string>{"svr sharding key:zone, client sharding key:uid"});
    EXPECT_EQ(log.Texts(kError),
              std::vector<std::string>{"strSvrShardingKey:zone strClientShardingKey:uid not match."});
}

TEST(CompareMessageMeta, ShardingKeyDifferenceWithOneIndexEachIsMinus20) {
    FileDescriptorProto client_file = FileOf(corvida::test::Player2::descriptor());
    SetIndexes(client_file, "Player2", {"by_name(zone,name)"});
    const ServerPool client_pool({client_file});
    FileDescriptorProto server_file = client_file;
    OptionsOf(server_file, "Player2")->SetExtension(corvidaservice::corvida_sharding_key, "zone");

    LogCapture log;
    EXPECT_EQ(Compare({server_file}, client_pool.Type("corvida.test.Player2"), log), -20);
    EXPECT_EQ(log.Texts(kDebug), std::vector<std::string>{"svr sharding key:zone, client sharding key:uid"});
    EXPECT_EQ(log.Texts(kError),
              std::vector<std::string>{"strSvrShardingKey:zone strClientShardingKey:uid not match."});
}

TEST(CompareMessageMeta, ServerIndexMissingInClientIsMinus21) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::Player2::descriptor(),
                  [](FileDescriptorProto& file) {
                      SetIndexes(file, "Player2", {"by_nick(zone,name)", "by_level(level)"});
                  },
                  log),
              -21);
    EXPECT_EQ(log.Texts(kError), std::vector<std::string>{"Cannot find index(by_nick) in client proto."});
}

TEST(CompareMessageMeta, MalformedServerIndexTakesPartWithAnEmptyName) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::Player2::descriptor(),
                  [](FileDescriptorProto& file) {
                      SetIndexes(file, "Player2", {"broken", "by_level(level)"});
                  },
                  log),
              -21);
    EXPECT_EQ(log.Texts(kError), std::vector<std::string>{"Cannot find index() in client proto."});
}

TEST(CompareMessageMeta, IndexFieldListDifferenceIsMinus22) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::Player2::descriptor(),
                  [](FileDescriptorProto& file) {
                      SetIndexes(file, "Player2", {"by_name(zone)", "by_level(level)"});
                  },
                  log),
              -22);
    EXPECT_EQ(log.Texts(kError), std::vector<std::string>{"Index by_name has been modified"});
}

TEST(CompareMessageMeta, IndexFieldOrderDoesNotMatter) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::Player2::descriptor(),
                  [](FileDescriptorProto& file) {
                      SetIndexes(file, "Player2", {"by_level( level )", "by_name(name , zone)"});
                  },
                  log),
              0)
        << log.Dump();
}

TEST(CompareMessageMeta, LaterServerIndexOfTheSameNameReplacesTheEarlierOne) {
    LogCapture log;
    // Two entries, one name: only by_name(zone,name) is compared, and the
    // client's by_level is never asked for.
    EXPECT_EQ(CompareEdited(
                  corvida::test::Player2::descriptor(),
                  [](FileDescriptorProto& file) {
                      SetIndexes(file, "Player2", {"by_name(zone)", "by_name(zone,name)"});
                  },
                  log),
              0)
        << log.Dump();
}

// ---------------------------------------------------------------------------
// Recursive types.
// ---------------------------------------------------------------------------

TEST(CompareMessageMeta, SelfReferencingTypeComparesInFiniteTime) {
    LogCapture log;
    EXPECT_EQ(Compare({FileOf(corvida::test::TreeNode2::descriptor())}, corvida::test::TreeNode2::descriptor(), log),
              0);
    EXPECT_TRUE(log.Texts(kError).empty()) << log.Dump();
}

TEST(CompareMessageMeta, MutuallyRecursiveTypesCompareInFiniteTime) {
    LogCapture log;
    EXPECT_EQ(Compare({FileOf(corvida::test::Ping2::descriptor())}, corvida::test::Ping2::descriptor(), log), 0);
    EXPECT_TRUE(log.Texts(kError).empty()) << log.Dump();
}

TEST(CompareMessageMeta, RecursionStillReportsDifferencesBehindTheCycle) {
    LogCapture log;
    // Pong2.ping leads back to Ping2, which is being compared; the difference
    // in Pong2.hits, after it, is still found.
    EXPECT_EQ(CompareEdited(
                  corvida::test::Ping2::descriptor(),
                  [](FileDescriptorProto& file) {
                      FieldIn(MessageIn(file, "Pong2"), "hits")->set_type(FieldDescriptorProto::TYPE_INT64);
                  },
                  log),
              -12);
    ASSERT_EQ(log.Texts(kError).size(), 2u) << log.Dump();
    EXPECT_EQ(log.Texts(kError)[1], "CmpMsg(corvida.test.Ping2.pong, corvida.test.Ping2.pong) failed: -10");
}

TEST(CompareMessageMeta, SelfReferenceWithADifferenceIsReportedAtTheTop) {
    LogCapture log;
    EXPECT_EQ(CompareEdited(
                  corvida::test::TreeNode2::descriptor(),
                  [](FileDescriptorProto& file) {
                      FieldIn(MessageIn(file, "TreeNode2"), "children")->set_type(FieldDescriptorProto::TYPE_INT32);
                      FieldIn(MessageIn(file, "TreeNode2"), "children")->clear_type_name();
                  },
                  log),
              -10);
    EXPECT_EQ(log.Texts(kError).size(), 1u) << log.Dump();
}

// ---------------------------------------------------------------------------
// is_vecEqual.
// ---------------------------------------------------------------------------

TEST(IsVecEqual, SameNamesInAnyOrder) {
    EXPECT_TRUE(is_vecEqual({}, {}));
    EXPECT_TRUE(is_vecEqual({"a"}, {"a"}));
    EXPECT_TRUE(is_vecEqual({"a", "b", "c"}, {"c", "a", "b"}));
    EXPECT_TRUE(is_vecEqual({"a", "a", "b"}, {"a", "b", "a"}));
}

TEST(IsVecEqual, DifferentSizesOrMultisetsDiffer) {
    EXPECT_FALSE(is_vecEqual({"a"}, {"a", "b"}));
    EXPECT_FALSE(is_vecEqual({"a", "a"}, {"a"}));
    EXPECT_FALSE(is_vecEqual({"a", "b"}, {"a", "c"}));
    EXPECT_FALSE(is_vecEqual({"a", "a", "b"}, {"a", "b", "b"}));
    EXPECT_FALSE(is_vecEqual({""}, {"a"}));
}

TEST(IsVecEqual, WorksOnCopies) {
    const std::vector<std::string> a = {"b", "a"};
    const std::vector<std::string> b = {"a", "b"};
    EXPECT_TRUE(is_vecEqual(a, b));
    EXPECT_EQ(a, (std::vector<std::string>{"b", "a"}));
}

}  // namespace

// Every result of GetMetaAndCompare, each produced by a server schema that
// differs from the compiled type in one way, with the first error line it
// logs. docs/guide.md lists the same codes with the fix for each.
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include <google/protobuf/descriptor.pb.h>

#include "corvidaservice.optionv1.pb.h"
#include "expect.h"
#include "guide.pb.h"
#include "guide_legacy.pb.h"
#include "protobuf_api/protobuf_util.h"

namespace {

using google::protobuf::Descriptor;
using google::protobuf::DescriptorProto;
using google::protobuf::FieldDescriptorProto;
using google::protobuf::FileDescriptorProto;
using google::protobuf::FileDescriptorSet;

// Changes the server's copy of the table's file; table is the table's
// message inside file.
using Edit = std::function<void(FileDescriptorProto& file, DescriptorProto& table)>;

DescriptorProto* MessageNamed(FileDescriptorProto& file, const std::string& name) {
    for (auto& message : *file.mutable_message_type()) {
        if (message.name() == name) return &message;
    }
    return nullptr;
}

FieldDescriptorProto* FieldNamed(DescriptorProto& message, const std::string& name) {
    for (auto& field : *message.mutable_field()) {
        if (field.name() == name) return &field;
    }
    return nullptr;
}

// The server's blob of table's file, with edit applied. Without the imports
// when with_imports is false.
std::string Blob(const Descriptor* table, const Edit& edit, bool with_imports = true) {
    FileDescriptorSet set;
    const google::protobuf::FileDescriptor* file = table->file();
    if (with_imports) {
        for (int i = 0; i < file->dependency_count(); ++i) file->dependency(i)->CopyTo(set.add_file());
    }
    FileDescriptorProto* own = set.add_file();
    file->CopyTo(own);
    edit(*own, *MessageNamed(*own, table->name()));
    return set.SerializeAsString();
}

// Moves the file to another package, with the type names its fields use.
void MovePackage(FileDescriptorProto& file, const std::string& package) {
    const std::string old_prefix = "." + file.package() + ".";
    for (auto& message : *file.mutable_message_type()) {
        for (auto& field : *message.mutable_field()) {
            if (field.type_name().rfind(old_prefix, 0) == 0) {
                field.set_type_name("." + package + "." + field.type_name().substr(old_prefix.size()));
            }
        }
    }
    file.set_package(package);
}

void SetPrimaryKey(DescriptorProto& table, const std::string& key) {
    table.mutable_options()->SetExtension(corvidaservice::corvida_primary_key, key);
}

void SetIndex(DescriptorProto& table, int i, const std::string& index) {
    table.mutable_options()->SetExtension(corvidaservice::corvida_index, i, index);
}

void AddRequiredField(DescriptorProto& table, const std::string& name, int number) {
    FieldDescriptorProto* field = table.add_field();
    field->set_name(name);
    field->set_number(number);
    field->set_label(FieldDescriptorProto::LABEL_REQUIRED);
    field->set_type(FieldDescriptorProto::TYPE_INT64);
}

struct Case {
    int code;
    const char* first_error;  // how the first error line begins
    const Descriptor* client;
    Edit edit;
};

std::vector<Case> Cases() {
    const Descriptor* const kAccount = bank::Account::descriptor();
    const Descriptor* const kTransfer = bank::Transfer::descriptor();
    return {
        // Compatible: the same schema, and differences the check accepts.
        {0, "", kAccount, [](FileDescriptorProto&, DescriptorProto&) {}},
        {0, "", kAccount, [](FileDescriptorProto&, DescriptorProto& t) { SetPrimaryKey(t, "region, account_id"); }},
        {0, "", kAccount,
         [](FileDescriptorProto&, DescriptorProto& t) { SetIndex(t, 1, "by_balance(balance,region)"); }},
        {0, "", kAccount, [](FileDescriptorProto&, DescriptorProto& t) { t.mutable_field()->RemoveLast(); }},
        {0, "", kAccount,
         [](FileDescriptorProto&, DescriptorProto& t) {
             FieldDescriptorProto* f = t.add_field();
             f->set_name("nickname");
             f->set_number(20);
             f->set_label(FieldDescriptorProto::LABEL_OPTIONAL);
             f->set_type(FieldDescriptorProto::TYPE_STRING);
         }},
        // Incompatible, in the order of the checks.
        {-3, "svr proto syntax:", kAccount, [](FileDescriptorProto& f, DescriptorProto&) { f.set_syntax("proto2"); }},
        {-4, "message type not match", kAccount,
         [](FileDescriptorProto& f, DescriptorProto&) { MovePackage(f, "bank.v2"); }},
        {-4, "svr primary key:", kAccount,
         [](FileDescriptorProto&, DescriptorProto& t) { SetPrimaryKey(t, "account_id"); }},
        {-6, "svr primary key:", kAccount,
         [](FileDescriptorProto&, DescriptorProto& t) { SetPrimaryKey(t, "account_id, email"); }},
        {-7, "strSvrCipherSuite:", kAccount,
         [](FileDescriptorProto&, DescriptorProto& t) {
             t.mutable_options()->SetExtension(corvidaservice::corvida_field_cipher_suite, "cards");
         }},
        {-8, "strSvrCipherMd5:", kAccount,
         [](FileDescriptorProto&, DescriptorProto& t) {
             t.mutable_options()->SetExtension(corvidaservice::corvida_cipher_md5, "df669d27ff4ec90ba62a7fb07b5af670");
         }},
        {-10, "optional field but name(", kAccount,
         [](FileDescriptorProto&, DescriptorProto& t) { FieldNamed(t, "balance")->set_name("funds"); }},
        {-10, "optional field but name(", kAccount,
         [](FileDescriptorProto&, DescriptorProto& t) {
             FieldNamed(t, "balance")->set_type(FieldDescriptorProto::TYPE_SINT64);
         }},
        {-11, "optional fieldsvrField->full_name:", kAccount,
         [](FileDescriptorProto&, DescriptorProto& t) {
             FieldNamed(t, "email")->mutable_options()->SetExtension(corvidaservice::corvida_crypto, true);
         }},
        {-12, "optional field but name(", kAccount,  // logged for Address.city, then "CmpMsg(...) failed: -10"
         [](FileDescriptorProto& f, DescriptorProto&) {
             FieldNamed(*MessageNamed(f, "Address"), "city")->set_type(FieldDescriptorProto::TYPE_BYTES);
         }},
        {-13, "NULL == clientField:", kTransfer,
         [](FileDescriptorProto&, DescriptorProto& t) { AddRequiredField(t, "fee", 9); }},
        {-14, "svrField->full_name:", kTransfer,
         [](FileDescriptorProto&, DescriptorProto& t) { FieldNamed(t, "amount")->set_name("sum"); }},
        {-15, "svrField->type():", kTransfer,
         [](FileDescriptorProto&, DescriptorProto& t) {
             FieldNamed(t, "amount")->set_type(FieldDescriptorProto::TYPE_UINT64);
         }},
        {-16, "svrField->label():", kTransfer,
         [](FileDescriptorProto&, DescriptorProto& t) {
             FieldNamed(t, "memo")->set_label(FieldDescriptorProto::LABEL_REQUIRED);
         }},
        {-17, "optional field but name(", kTransfer,
         [](FileDescriptorProto&, DescriptorProto& t) {
             FieldNamed(t, "amount")->mutable_options()->SetExtension(corvidaservice::corvida_crypto, true);
         }},
        {-18, "svrField->type():", kTransfer,  // logged for Party.account_id, then "CmpMsg(...) failed: -15"
         [](FileDescriptorProto& f, DescriptorProto&) {
             FieldNamed(*MessageNamed(f, "Party"), "account_id")->set_type(FieldDescriptorProto::TYPE_INT64);
         }},
        {-19, "svr's index num:", kAccount,
         [](FileDescriptorProto&, DescriptorProto& t) {
             t.mutable_options()->AddExtension(corvidaservice::corvida_index, "by_region(region)");
         }},
        {-20, "strSvrShardingKey:", kAccount,
         [](FileDescriptorProto&, DescriptorProto& t) {
             t.mutable_options()->SetExtension(corvidaservice::corvida_sharding_key, "region");
         }},
        {-21, "Cannot find index(", kAccount,
         [](FileDescriptorProto&, DescriptorProto& t) { SetIndex(t, 0, "by_mail(email)"); }},
        {-22, "Index by_email has been modified", kAccount,
         [](FileDescriptorProto&, DescriptorProto& t) { SetIndex(t, 0, "by_email(email,region)"); }},
    };
}

std::vector<std::string> g_errors;

void CollectErrors(void*, const PLOGEVENT* event, const char* msg, size_t len) {
    if (event->iPriority == PLOG_PRIORITY_ERROR) g_errors.emplace_back(msg, len);
}

// The result of GetMetaAndCompare and the first error line it logged.
int Compare(const std::string& table, const std::string& blob, const Descriptor* client, LPPLOGCATEGORYINST log,
            std::string* first_error) {
    g_errors.clear();
    const int ret = PROTOBUF_UTIL::GetMetaAndCompare(table, blob, client, log);
    *first_error = g_errors.empty() ? "" : g_errors.front();
    return ret;
}

}  // namespace

int main() {
    PLOGCATEGORYINST log;
    plog_category_init(&log, "guide", PLOG_PRIORITY_ERROR);
    log.pfnWrite = &CollectErrors;

    for (const Case& c : Cases()) {
        std::string first_error;
        const int ret = Compare(c.client->name(), Blob(c.client, c.edit), c.client, &log, &first_error);
        const bool ok = ret == c.code && first_error.rfind(c.first_error, 0) == 0;
        std::printf("%s %4d  %s\n", ok ? "ok  " : "FAIL", ret, first_error.c_str());
        Expect(ok, "GetMetaAndCompare gives the expected code and error line");
    }

    // The blob itself or the table's name is wrong.
    const Descriptor* const kAccount = bank::Account::descriptor();
    std::string first_error;
    const std::string blob = Blob(kAccount, [](FileDescriptorProto&, DescriptorProto&) {});
    Expect(
        Compare("Ledger", blob, kAccount, &log, &first_error) == -1 && first_error == "CompareMessageMeta failed:-1.",
        "-1: no top-level type of that name");
    Expect(Compare("Account", "not a descriptor set", kAccount, &log, &first_error) == -1 &&
               first_error.rfind("ParseFromArray idl_content failed", 0) == 0,
           "-1: the blob does not parse");
    const std::string without_imports = Blob(
        kAccount, [](FileDescriptorProto&, DescriptorProto&) {}, false);
    Expect(Compare("Account", without_imports, kAccount, &log, &first_error) == -2 &&
               first_error == "FindFileByName guide.proto failed.",
           "-2: a file of the blob does not build (here: its import is missing)");
    Expect(PROTOBUF_UTIL::GetMetaAndCompare("Account", blob, kAccount, nullptr) == -1, "-1: no log category");

    return ExitStatus();
}

// A program built against the installed protobuf bridge: it extracts the
// record key of an order (with its encrypted field), cuts two fields into a
// value set and merges them back, loads the table's schema blob and compares
// it with the compiled type, and keeps orders in a table store in a temporary
// directory. It prints one line per check and exits non-zero when any check
// fails.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <google/protobuf/descriptor.pb.h>

#include "corvidaservice.optionv1.pb.h"
#include "protobuf_api/aes_siv_cipher_suite.h"
#include "protobuf_api/protobuf_util.h"
#include "shop.pb.h"
#include "store/table_store.h"

namespace {

// The demo key of the "shop-aes" suite named by Order's options.
const char kDemoKey[] = "3c1f8e2a9b7d5046e1f2a3b4c5d6e7f8091a2b3c4d5e6f708192a3b4c5d6e7f8";

int g_failures = 0;

void Check(bool ok, const char* what) {
    std::printf("%s %s\n", ok ? "ok  " : "FAIL", what);
    if (!ok) ++g_failures;
}

shop::Order SampleOrder() {
    shop::Order order;
    order.set_shop_id(7);
    order.set_order_id(1001);
    order.set_customer("bob@example.org");
    order.set_total_cents(4599);
    order.mutable_ship_to()->set_city("Lyon");
    order.set_note("leave at the door");
    order.ByteSizeLong();  // keys and value sets use cached sizes
    return order;
}

// The key: shop_id, order_id, then customer as AES-SIV ciphertext, which
// decrypts back to the customer.
void CheckKey(CORVIDA_KV::CorvidaKVApi& kv, const shop::Order& order, tagtbl_idl* idl, LPPLOGCATEGORYINST log) {
    uint8_t key[1024];
    int32_t size = sizeof(key);
    const int ret = PROTOBUF_UTIL::ProtobufUtil::ExtractMsgKey(&kv, order, key, size, idl, log, true);
    const uint8_t plain_part[] = {0x08, 0x07, 0x10, 0xe9, 0x07, 0x1a, 16 + 15};
    Check(ret == 0 && size == 7 + 16 + 15 && std::memcmp(key, plain_part, sizeof(plain_part)) == 0,
          "ExtractMsgKey: shop_id, order_id, encrypted customer");

    unsigned char plain[64];
    int plain_len = sizeof(plain);
    const int dec = kv.GetCipherSuite("shop-aes")->Decrypt(key + 7, size - 7, plain, plain_len);
    Check(dec == 0 && std::string(reinterpret_cast<char*>(plain), plain_len) == "bob@example.org",
          "the key's customer decrypts");
}

// Cuts total_cents and ship_to.city (the key fields are skipped) and merges
// them into an empty order.
void CheckValueSet(shop::Order& order, LPPLOGCATEGORYINST log) {
    std::set<std::string> key_names;
    PROTOBUF_UTIL::ProtobufUtil::GetMsgKeyNames(order, key_names);
    std::unique_ptr<ProtobufValueSet_> values(new ProtobufValueSet_);  // ~44 MB: heap only
    values->construct();
    int ret = PROTOBUF_UTIL::FillValueSetWithMsg(&order, key_names, {"order_id", "ship_to.city", "total_cents"},
                                                 *values, log);
    CorvidaCommon::PbValueSetBuffer reader(values.get(), values->iVersion_, log);
    std::vector<CorvidaCommon::PbValueSetBuffer::Field> fields;
    Check(ret == 0 && reader.GetFields(fields) == 0 && fields.size() == 2 && std::strcmp(fields[0].path, "5.1") == 0 &&
              std::strcmp(fields[1].path, "4") == 0,
          "FillValueSetWithMsg: 5.1 and 4, key field skipped");

    shop::Order merged;
    std::set<std::string> failedpaths;
    ret = PROTOBUF_UTIL::FillMsgFromField(fields, failedpaths, &merged, nullptr, 0, log);
    Check(ret == 0 && failedpaths.empty() && merged.total_cents() == 4599 && merged.ship_to().city() == "Lyon" &&
              merged.note().empty(),
          "FillMsgFromField: the two fields merged, nothing else");
}

// Order's file and its imports as a serialized FileDescriptorSet, the form in
// which the server delivers a table's schema. edit changes Order on the way.
template <typename Edit>
std::string SchemaBlob(Edit edit) {
    google::protobuf::FileDescriptorSet set;
    const google::protobuf::FileDescriptor* file = shop::Order::descriptor()->file();
    for (int i = 0; i < file->dependency_count(); ++i) file->dependency(i)->CopyTo(set.add_file());
    google::protobuf::FileDescriptorProto* own = set.add_file();
    file->CopyTo(own);
    for (auto& message : *own->mutable_message_type()) {
        if (message.name() == "Order") edit(message);
    }
    return set.SerializeAsString();
}

void CheckSchema(LPPLOGCATEGORYINST log) {
    const std::string blob = SchemaBlob([](google::protobuf::DescriptorProto&) {});
    PROTOBUF_UTIL::MsgDescGroup group;
    const google::protobuf::Descriptor* server = PROTOBUF_UTIL::FillMessageGroup("Order", blob, &group, log);
    Check(server != nullptr && group.vecKeyTag == std::vector<int>({1, 2, 3}) &&
              group.vecSplitKeyTag == std::vector<int>({1}) && group.m_mapIndex["by_total"] == std::vector<int>({1, 4}),
          "FillMessageGroup: key, sharding key and index field numbers");
    Check(PROTOBUF_UTIL::GetMetaAndCompare("Order", blob, shop::Order::descriptor(), log) == 0,
          "GetMetaAndCompare: the same schema is compatible");

    // A server whose primary key has only two fields is not (the two error
    // lines this logs are expected).
    const std::string changed = SchemaBlob([](google::protobuf::DescriptorProto& order) {
        order.mutable_options()->SetExtension(corvidaservice::corvida_primary_key, "order_id, shop_id");
    });
    Check(PROTOBUF_UTIL::GetMetaAndCompare("Order", changed, shop::Order::descriptor(), log) == -4,
          "GetMetaAndCompare: a different primary key gives -4");
}

// Creates table Order in a new store, writes the order, reads it back by its
// key and finds it through its index.
void CheckStore(CORVIDA_KV::CorvidaKVApi& kv, const shop::Order& order) {
    char dir[] = "/tmp/consumer-store-XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        Check(false, "a temporary directory for the store");
        return;
    }
    {
        corvida::store::StoreOptions options;
        options.create_if_missing = true;
        std::unique_ptr<corvida::store::TableStore> store;
        std::unique_ptr<corvida::store::Table> orders;
        corvida::store::Status s = corvida::store::TableStore::Open(dir, options, &store);
        if (s.ok()) s = store->CreateTable(SchemaBlob([](google::protobuf::DescriptorProto&) {}), "Order");
        if (s.ok()) s = store->OpenTable(shop::Order::default_instance(), &kv, &orders);
        if (s.ok()) s = orders->Put(order);
        Check(s.ok(), "TableStore: table created, order written");

        shop::Order key;
        key.set_shop_id(order.shop_id());
        key.set_order_id(order.order_id());
        key.set_customer(order.customer());
        shop::Order back;
        s = orders->Get(key, {}, &back, nullptr);
        Check(s.ok() && back.total_cents() == 4599 && back.ship_to().city() == "Lyon", "Table::Get: the order read back");

        std::vector<corvida::store::Record> found;
        s = orders->FindByIndex("by_total", order, &found);
        Check(s.ok() && found.size() == 1 &&
                  static_cast<const shop::Order&>(*found[0].message).customer() == "bob@example.org",
              "Table::FindByIndex: found, the encrypted key field decrypted");
    }
    std::filesystem::remove_all(dir);
}

}  // namespace

int main() {
    // Error lines go to stderr.
    PLOGCATEGORYINST log;
    plog_category_init(&log, "consumer", PLOG_PRIORITY_ERROR);

    CORVIDA_KV::CorvidaKVApi kv;
    std::unique_ptr<AesSivCipherSuite> suite(new AesSivCipherSuite("shop-aes"));
    Check(suite->Init(kDemoKey) == 0 && kv.AddCipherSuite(std::move(suite)) == 0, "cipher suite configured");

    std::unique_ptr<tagtbl_idl> idl(new tagtbl_idl);  // ~10 MB scratch: heap only
    shop::Order order = SampleOrder();
    CheckKey(kv, order, idl.get(), &log);
    CheckValueSet(order, &log);
    CheckSchema(&log);
    CheckStore(kv, order);

    std::printf("%s\n", g_failures == 0 ? "all checks passed" : "some checks FAILED");
    return g_failures == 0 ? 0 : 1;
}

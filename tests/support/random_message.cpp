#include "support/random_message.h"

#include <cstdint>
#include <limits>
#include <string>

#include <google/protobuf/descriptor.h>

namespace corvida_test {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;

template <typename T>
T RandomInt(std::mt19937_64& rng) {
    static const T kEdges[] = {0, 1, static_cast<T>(-1), std::numeric_limits<T>::min(), std::numeric_limits<T>::max(),
                               127, 128, 16383, 16384};
    if (rng() % 3 == 0) return kEdges[rng() % (sizeof(kEdges) / sizeof(kEdges[0]))];
    // Spread values over every varint length.
    const int bits = 1 + static_cast<int>(rng() % (sizeof(T) * 8));
    uint64_t v = rng();
    if (bits < 64) v &= (uint64_t{1} << bits) - 1;
    return static_cast<T>(v);
}

template <typename T>
T RandomFloat(std::mt19937_64& rng) {
    static const T kEdges[] = {0, -0.0, 1, -1, std::numeric_limits<T>::max(), std::numeric_limits<T>::lowest(),
                               std::numeric_limits<T>::min(), std::numeric_limits<T>::infinity()};
    if (rng() % 4 == 0) return kEdges[rng() % (sizeof(kEdges) / sizeof(kEdges[0]))];
    std::uniform_real_distribution<T> dist(-1e6, 1e6);
    return dist(rng);
}

std::string RandomString(std::mt19937_64& rng, const FieldDescriptor* field, const RandomFillOptions& options) {
    const size_t len = rng() % (options.max_string + 1);
    std::string s(len, '\0');
    for (auto& c : s) {
        c = field->type() == FieldDescriptor::TYPE_BYTES ? static_cast<char>(rng() & 0xff)
                                                         : static_cast<char>('a' + rng() % 26);
    }
    return s;
}

bool IsDefault(const Message& msg, const FieldDescriptor* field);

void FillMessage(Message* msg, std::mt19937_64& rng, const RandomFillOptions& options, int depth, bool all);

// Sets one singular value of field (or appends one when repeated).
void SetOne(Message* msg, const FieldDescriptor* field, std::mt19937_64& rng, const RandomFillOptions& options,
            int depth) {
    const Reflection* r = msg->GetReflection();
    const bool rep = field->is_repeated();
    switch (field->cpp_type()) {
#define CORVIDA_SET_CASE(CPPTYPE, NAME, VALUE)          \
    case FieldDescriptor::CPPTYPE:                      \
        if (rep) {                                      \
            r->Add##NAME(msg, field, VALUE);            \
        } else {                                        \
            r->Set##NAME(msg, field, VALUE);            \
        }                                               \
        break;
        CORVIDA_SET_CASE(CPPTYPE_INT32, Int32, RandomInt<int32_t>(rng))
        CORVIDA_SET_CASE(CPPTYPE_INT64, Int64, RandomInt<int64_t>(rng))
        CORVIDA_SET_CASE(CPPTYPE_UINT32, UInt32, RandomInt<uint32_t>(rng))
        CORVIDA_SET_CASE(CPPTYPE_UINT64, UInt64, RandomInt<uint64_t>(rng))
        CORVIDA_SET_CASE(CPPTYPE_FLOAT, Float, RandomFloat<float>(rng))
        CORVIDA_SET_CASE(CPPTYPE_DOUBLE, Double, RandomFloat<double>(rng))
        CORVIDA_SET_CASE(CPPTYPE_BOOL, Bool, rng() % 2 == 0)
        CORVIDA_SET_CASE(CPPTYPE_STRING, String, RandomString(rng, field, options))
#undef CORVIDA_SET_CASE
        case FieldDescriptor::CPPTYPE_ENUM: {
            const auto* e = field->enum_type();
            const int number = e->value(static_cast<int>(rng() % e->value_count()))->number();
            if (rep) {
                r->AddEnumValue(msg, field, number);
            } else {
                r->SetEnumValue(msg, field, number);
            }
            break;
        }
        case FieldDescriptor::CPPTYPE_MESSAGE: {
            Message* sub = rep ? r->AddMessage(msg, field) : r->MutableMessage(msg, field);
            FillMessage(sub, rng, options, depth + 1, false);
            break;
        }
    }
}

void FillField(Message* msg, const FieldDescriptor* field, std::mt19937_64& rng, const RandomFillOptions& options,
               int depth, bool all) {
    if (field->cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE && depth >= options.max_depth && !all) return;
    if (field->is_repeated()) {
        const int n = static_cast<int>(rng() % (options.max_repeated + 1));
        for (int i = 0; i < n; ++i) SetOne(msg, field, rng, options, depth);
        return;
    }
    if (!all && field->has_default_value() && rng() % 4 == 0) {
        SetToDefault(msg, field);
        return;
    }
    // Retry a few times so that "all" really ends with a non-default value.
    for (int attempt = 0; attempt < 16; ++attempt) {
        SetOne(msg, field, rng, options, depth);
        if (!all || !IsDefault(*msg, field)) return;
    }
}

void FillMessage(Message* msg, std::mt19937_64& rng, const RandomFillOptions& options, int depth, bool all) {
    const Descriptor* d = msg->GetDescriptor();
    std::uniform_real_distribution<double> chance(0.0, 1.0);
    for (int i = 0; i < d->oneof_decl_count(); ++i) {
        const auto* oneof = d->oneof_decl(i);
        if (oneof->is_synthetic()) continue;
        if (all || chance(rng) < options.set_probability) {
            FillField(msg, oneof->field(static_cast<int>(rng() % oneof->field_count())), rng, options, depth, all);
        }
    }
    for (int i = 0; i < d->field_count(); ++i) {
        const FieldDescriptor* field = d->field(i);
        if (field->real_containing_oneof() != nullptr) continue;
        if (all && field->is_repeated()) continue;
        if (all || chance(rng) < options.set_probability) FillField(msg, field, rng, options, depth, all);
    }
}

bool IsDefault(const Message& msg, const FieldDescriptor* field) {
    const Reflection* r = msg.GetReflection();
    switch (field->cpp_type()) {
        case FieldDescriptor::CPPTYPE_INT32: return r->GetInt32(msg, field) == 0;
        case FieldDescriptor::CPPTYPE_INT64: return r->GetInt64(msg, field) == 0;
        case FieldDescriptor::CPPTYPE_UINT32: return r->GetUInt32(msg, field) == 0;
        case FieldDescriptor::CPPTYPE_UINT64: return r->GetUInt64(msg, field) == 0;
        case FieldDescriptor::CPPTYPE_FLOAT: return r->GetFloat(msg, field) == 0;
        case FieldDescriptor::CPPTYPE_DOUBLE: return r->GetDouble(msg, field) == 0;
        case FieldDescriptor::CPPTYPE_BOOL: return !r->GetBool(msg, field);
        case FieldDescriptor::CPPTYPE_STRING: return r->GetString(msg, field).empty();
        case FieldDescriptor::CPPTYPE_ENUM: return r->GetEnumValue(msg, field) == 0;
        case FieldDescriptor::CPPTYPE_MESSAGE: return false;
    }
    return false;
}

}  // namespace

void SetToDefault(Message* msg, const FieldDescriptor* field) {
    const Reflection* r = msg->GetReflection();
    switch (field->cpp_type()) {
        case FieldDescriptor::CPPTYPE_INT32: r->SetInt32(msg, field, field->default_value_int32()); break;
        case FieldDescriptor::CPPTYPE_INT64: r->SetInt64(msg, field, field->default_value_int64()); break;
        case FieldDescriptor::CPPTYPE_UINT32: r->SetUInt32(msg, field, field->default_value_uint32()); break;
        case FieldDescriptor::CPPTYPE_UINT64: r->SetUInt64(msg, field, field->default_value_uint64()); break;
        case FieldDescriptor::CPPTYPE_FLOAT: r->SetFloat(msg, field, field->default_value_float()); break;
        case FieldDescriptor::CPPTYPE_DOUBLE: r->SetDouble(msg, field, field->default_value_double()); break;
        case FieldDescriptor::CPPTYPE_BOOL: r->SetBool(msg, field, field->default_value_bool()); break;
        case FieldDescriptor::CPPTYPE_STRING: r->SetString(msg, field, field->default_value_string()); break;
        case FieldDescriptor::CPPTYPE_ENUM: r->SetEnumValue(msg, field, field->default_value_enum()->number()); break;
        case FieldDescriptor::CPPTYPE_MESSAGE: r->MutableMessage(msg, field); break;
    }
}

void FillRandom(Message* msg, std::mt19937_64& rng, const RandomFillOptions& options) {
    FillMessage(msg, rng, options, 0, false);
}

void FillAllSingularNonDefault(Message* msg, std::mt19937_64& rng, const RandomFillOptions& options) {
    FillMessage(msg, rng, options, 0, true);
}

}  // namespace corvida_test

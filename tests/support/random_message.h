// Fills messages with random field values through reflection, for
// differential and round-trip tests.
#ifndef CORVIDA_TESTS_SUPPORT_RANDOM_MESSAGE_H_
#define CORVIDA_TESTS_SUPPORT_RANDOM_MESSAGE_H_

#include <random>

#include <google/protobuf/message.h>

namespace corvida_test {

struct RandomFillOptions {
    double set_probability = 0.7;  // chance that a field (or a oneof) is set
    int max_depth = 3;             // sub-messages below this depth stay unset
    int max_repeated = 4;          // repeated fields and maps get 0..max elements
    int max_string = 24;           // strings and bytes get 0..max bytes
};

// Sets random values on the fields of msg (extensions left alone). Integers
// are drawn from boundary values and uniform values of their range; floats are
// finite; strings are ASCII text, bytes arbitrary. A field with a default of
// its own is now and then set to that default. At most one member of each
// oneof is set.
void FillRandom(google::protobuf::Message* msg, std::mt19937_64& rng, const RandomFillOptions& options = {});

// Sets singular field of msg to the default its declaration names (or its
// type's), so that it is present with that value.
void SetToDefault(google::protobuf::Message* msg, const google::protobuf::FieldDescriptor* field);

// Sets every singular field of msg (not repeated, not oneof members beyond the
// first of each oneof) to a random value that differs from the field's default,
// so that even a proto3 field is present on the wire.
void FillAllSingularNonDefault(google::protobuf::Message* msg, std::mt19937_64& rng,
                               const RandomFillOptions& options = {});

}  // namespace corvida_test

#endif  // CORVIDA_TESTS_SUPPORT_RANDOM_MESSAGE_H_

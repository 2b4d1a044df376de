// .proto files that corvida-pb serves itself when the search path lacks
// them, so that users need only their own table files:
//   - the option file "corvidaservice.optionv1.proto", compiled into the tool
//     (the build generates kOptionProtoText from the library's copy);
//   - protobuf's own "google/protobuf/*.proto" files, printed from the
//     descriptors compiled into the protobuf runtime.
#ifndef CORVIDA_PB_BUILTIN_FILES_H_
#define CORVIDA_PB_BUILTIN_FILES_H_

#include <string>

namespace corvida_pb {

extern const char kOptionProtoName[];  // "corvidaservice.optionv1.proto"
extern const char kOptionProtoText[];  // its .proto text

// True when name is the option file or a google/protobuf/ file the runtime
// holds; then *text receives its .proto text.
bool BuiltinProtoText(const std::string& name, std::string* text);

// True when name is one of the files BuiltinProtoText serves (whether or not
// the search path also holds a copy).
bool IsBuiltinProtoName(const std::string& name);

}  // namespace corvida_pb

#endif  // CORVIDA_PB_BUILTIN_FILES_H_

// The schema blob of the guide's tables, as the examples of the table store
// create them: the option file, then guide.proto.
#ifndef CORVIDA_DOCS_EXAMPLES_GUIDE_BLOB_H_
#define CORVIDA_DOCS_EXAMPLES_GUIDE_BLOB_H_

#include <string>

#include <google/protobuf/descriptor.pb.h>

#include "guide.pb.h"

inline std::string GuideBlob() {
    google::protobuf::FileDescriptorSet set;
    const google::protobuf::FileDescriptor* file = bank::Account::descriptor()->file();
    for (int i = 0; i < file->dependency_count(); ++i) file->dependency(i)->CopyTo(set.add_file());
    file->CopyTo(set.add_file());
    return set.SerializeAsString();
}

#endif  // CORVIDA_DOCS_EXAMPLES_GUIDE_BLOB_H_

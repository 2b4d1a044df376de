// The version of corvida-pb: the project's version, from CMake.
#ifndef CORVIDA_PB_VERSION_H_
#define CORVIDA_PB_VERSION_H_

namespace corvida_pb {

extern const char kCorvidaPbVersion[];

}  // namespace corvida_pb

#endif  // CORVIDA_PB_VERSION_H_

// The result of every operation of the table store.
//
// A Status is a code and a message. The message is meant to be shown as it
// is ("table Player: ..."): it names tables, fields, paths and codes, never
// key bytes, field values or cipher keys. An incompatible client schema also
// carries the schema comparison's own code (bridge_code()), and so do the
// failures of the bridge's other operations where one is the cause.
//
// Status is a small value type: copy it, compare its code, print it.
#ifndef CORVIDA_STORE_STATUS_H_
#define CORVIDA_STORE_STATUS_H_

#include <string>
#include <utility>

namespace corvida {
namespace store {

class Status {
public:
    enum class Code {
        kOk = 0,
        kNotFound,            // no such record, table or store
        kIncompatibleSchema,  // the client's type does not match the stored schema
        kInvalidArgument,     // a message, path, name or option the store cannot use
        kCorruption,          // stored bytes that cannot be what the store wrote
        kIOError,             // the file system refused
        kBusy,                // another process holds the store
        kNotSupported,        // a store of a newer layout, or a request the store does not serve
        kAlreadyExists,       // a table of that name exists
    };

    // Success.
    Status() = default;

    static Status OK() { return Status(); }
    static Status NotFound(std::string message) { return Status(Code::kNotFound, std::move(message)); }
    // code is the result of the schema comparison (CompareMessageMeta).
    static Status IncompatibleSchema(int code, std::string message) {
        return Status(Code::kIncompatibleSchema, std::move(message), code);
    }
    static Status InvalidArgument(std::string message, int bridge_code = 0) {
        return Status(Code::kInvalidArgument, std::move(message), bridge_code);
    }
    static Status Corruption(std::string message) { return Status(Code::kCorruption, std::move(message)); }
    static Status IOError(std::string message) { return Status(Code::kIOError, std::move(message)); }
    static Status Busy(std::string message) { return Status(Code::kBusy, std::move(message)); }
    static Status NotSupported(std::string message) { return Status(Code::kNotSupported, std::move(message)); }
    static Status AlreadyExists(std::string message) { return Status(Code::kAlreadyExists, std::move(message)); }

    bool ok() const { return m_code == Code::kOk; }
    Code code() const { return m_code; }
    const std::string& message() const { return m_message; }

    // The result of the bridge operation behind the failure (the comparison's
    // code for kIncompatibleSchema, for example -4 of ExtractMsgKey for a
    // cipher key that does not match the table); 0 when there is none.
    int bridge_code() const { return m_bridge_code; }

    bool IsNotFound() const { return m_code == Code::kNotFound; }
    bool IsIncompatibleSchema() const { return m_code == Code::kIncompatibleSchema; }
    bool IsInvalidArgument() const { return m_code == Code::kInvalidArgument; }
    bool IsCorruption() const { return m_code == Code::kCorruption; }
    bool IsIOError() const { return m_code == Code::kIOError; }
    bool IsBusy() const { return m_code == Code::kBusy; }
    bool IsNotSupported() const { return m_code == Code::kNotSupported; }
    bool IsAlreadyExists() const { return m_code == Code::kAlreadyExists; }

    // "ok", or the code's name, ": " and the message ("not found: ...").
    std::string ToString() const;

private:
    Status(Code code, std::string message, int bridge_code = 0)
        : m_code(code), m_message(std::move(message)), m_bridge_code(bridge_code) {}

    Code m_code = Code::kOk;
    std::string m_message;
    int m_bridge_code = 0;
};

// The name of a code as ToString() writes it: "ok", "not found",
// "incompatible schema", "invalid argument", "corruption", "I/O error",
// "busy", "not supported", "already exists".
const char* CodeName(Status::Code code);

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_STATUS_H_

// corvida-pb cipher new and cipher md5: keys for the tables' AES-SIV suites.
#include <iostream>

#include <openssl/rand.h>

#include "corvida-pb/ciphers.h"
#include "corvida-pb/commands.h"
#include "corvida-pb/files.h"
#include "corvida-pb/report.h"
#include "corvida-pb/secrets.h"
#include "corvida-pb/status.h"
#include "corvida-pb/wire_view.h"

namespace corvida_pb {
namespace {

const char kNewDescription[] =
    "Prints a new random key (OpenSSL's RAND_bytes) as hex text, and the value of\n"
    "the corvida_cipher_md5 option for tables encrypted with it. --bytes 32 makes\n"
    "an AES-128-SIV key (64 hex digits), --bytes 64 an AES-256-SIV key (128).\n"
    "With -o FILE the key goes only to FILE, created readable by its owner alone;\n"
    "give it to the other commands with a line NAME=HEXKEY in --cipher-file.\n";

const char kMd5Description[] =
    "Reads a key as hex text from --key-file, or from standard input, and prints\n"
    "the value of the corvida_cipher_md5 option for tables encrypted with it.\n"
    "White space around the key is ignored. The key is never taken from the\n"
    "command line, where other users could see it, nor from a key file that\n"
    "group or others may access (chmod 600 FILE).\n";

const char kMd5Label[] = "corvida_cipher_md5";

class CipherNewCommand : public Command {
public:
    explicit CipherNewCommand(CLI::App* parent)
        : Command(parent, "new", "print a new random AES-SIV key and its corvida_cipher_md5", kNewDescription) {
        app()->add_option("--bytes", m_bytes, "32 (default) or 64: the length of the key in bytes")
            ->type_name("N")
            ->check(CLI::IsMember({32, 64}));
        m_output_option = app()
                              ->add_option("-o,--output", m_output,
                                           "write the key to FILE (a new file, mode 0600) instead of printing it")
                              ->type_name("FILE");
        AddFormatOption();
    }

    int Run() override {
        SecretString raw(std::string(static_cast<size_t>(m_bytes), '\0'));
        if (RAND_bytes(reinterpret_cast<unsigned char*>(&raw.str()[0]), m_bytes) != 1) {
            throw Failure("OpenSSL could not produce random bytes");
        }
        SecretString hex(HexEncode(raw.str()));
        RememberSecret(hex.str());
        const std::string md5 = CipherKeyMd5(hex.str(), "the new key");
        const bool to_file = Given(m_output_option) && m_output != "-";
        if (to_file) WriteNewPrivateFile(m_output, hex.str() + "\n");
        if (json()) {
            Json result = {{"bytes", m_bytes}};
            if (to_file) {
                result["output"] = m_output;
            } else {
                result["key"] = hex.str();
            }
            result[kMd5Label] = md5;
            PrintJson(std::cout, result);
        } else {
            if (to_file) {
                std::cout << "wrote a new " << m_bytes << "-byte key to " << m_output << "\n";
            } else {
                std::cout << "key: " << hex.str() << "\n";
            }
            std::cout << kMd5Label << ": " << md5 << "\n";
        }
        return kExitOk;
    }

private:
    int m_bytes = 32;
    std::string m_output;
    CLI::Option* m_output_option = nullptr;
};

class CipherMd5Command : public Command {
public:
    explicit CipherMd5Command(CLI::App* parent)
        : Command(parent, "md5", "print the corvida_cipher_md5 of a key read from a file or standard input",
                  kMd5Description) {
        ReadsFile(app()->add_option("--key-file", m_key_file, "the key as hex text ('-' or absent: standard input)")
                      ->type_name("FILE"));
        AddFormatOption();
    }

    int Run() override {
        const std::string source = DisplayName(m_key_file);
        const SecretString text = ReadKeyFile(m_key_file, "key file");
        const size_t first = text.str().find_first_not_of(" \t\r\n\v\f");
        const size_t last = text.str().find_last_not_of(" \t\r\n\v\f");
        SecretString key(first == std::string::npos ? "" : text.str().substr(first, last - first + 1));
        RememberSecret(key.str());
        const std::string md5 = CipherKeyMd5(key.str(), source);
        if (json()) {
            PrintJson(std::cout, {{kMd5Label, md5}});
        } else {
            std::cout << kMd5Label << ": " << md5 << "\n";
        }
        return kExitOk;
    }

private:
    std::string m_key_file = "-";
};

}  // namespace

std::vector<std::unique_ptr<Command>> MakeCipherCommands(CLI::App* parent) {
    CLI::App* group = parent->add_subcommand("cipher", "make cipher keys and their corvida_cipher_md5");
    group->set_help_flag("-h,--help", "show this help and exit");
    std::vector<std::unique_ptr<Command>> commands;
    commands.push_back(std::make_unique<CipherNewCommand>(group));
    commands.push_back(std::make_unique<CipherMd5Command>(group));
    return commands;
}

}  // namespace corvida_pb

// orvctl - command-line companion of orvlib.
//
//   orvctl guid                     print a new version-1 GUID
//   orvctl encipher <plaintext>     print the stored form of a credential
//   orvctl decipher <stored>        print the plain text of a stored credential
//   orvctl check-password <text>    print the counts behind the password checks
//
// Exit status: 0 on success, 1 when the operation fails, 2 on a usage error.
// Commands are rows of the table below; each receives the arguments that
// follow its name.
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

#include "orv_internal.hpp"
#include "orvldap.h"
#include "orvldap_helper.h"
#include "orvldap_password.h"
#include "orvldap_utils.h"

namespace {

constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;

int cmd_guid(int, char**) {
    orv::OrvString guid(orvlib_create_guid());
    if (!guid) {
        std::fprintf(stderr, "orvctl: could not create a GUID\n");
        return kFailed;
    }
    std::printf("%s\n", guid.get());
    return kOk;
}

int cmd_encipher(int, char** argv) {
    try {
        std::printf("%s\n", orv::encipher_credential(argv[0]).c_str());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "orvctl: %s\n", e.what());
        return kFailed;
    }
    return kOk;
}

int cmd_decipher(int, char** argv) {
    orv::OrvString plain(orv_decipher_credential(argv[0]));
    if (!plain) {
        std::fprintf(stderr, "orvctl: not a well-formed stored credential\n");
        return kFailed;
    }
    std::printf("%s\n", plain.get());
    return kOk;
}

int cmd_check_password(int, char** argv) {
    const char* text = argv[0];
    std::printf("length                %zu\n", std::strlen(text));
    std::printf("numeric characters    %d\n", orv::count_numeric_characters(text));
    std::printf("symbol characters     %d\n", orv::count_symbol_characters(text));
    std::printf("non-alpha characters  %d\n", orv::count_non_alpha_characters(text));
    std::printf("max repeated          %d\n", orv::count_max_repeated_characters(text));
    std::printf("different characters  %d\n", orv::count_different_characters(text));
    return kOk;
}

struct Command {
    const char* name;
    const char* arguments;  // shown in the usage text
    int argument_count;     // exact number of arguments after the name
    int (*run)(int argc, char** argv);
    const char* summary;
};

const Command kCommands[] = {
    {"guid", "", 0, cmd_guid, "print a new version-1 GUID"},
    {"encipher", "<plaintext>", 1, cmd_encipher, "print the stored form of a credential"},
    {"decipher", "<stored>", 1, cmd_decipher, "print the plain text of a stored credential"},
    {"check-password", "<text>", 1, cmd_check_password,
     "print the character counts of the password checks"},
};

void usage(std::FILE* out) {
    std::fprintf(out, "usage: orvctl <command> [arguments]\n\ncommands:\n");
    for (const Command& c : kCommands) {
        std::string head = std::string(c.name) + (c.arguments[0] ? " " : "") + c.arguments;
        std::fprintf(out, "  %-30s %s\n", head.c_str(), c.summary);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        usage(stderr);
        return kUsage;
    }
    const std::string name = argv[1];
    if (name == "-h" || name == "--help" || name == "help") {
        usage(stdout);
        return kOk;
    }
    for (const Command& c : kCommands) {
        if (name != c.name) continue;
        const int count = argc - 2;
        if (count != c.argument_count) {
            std::fprintf(stderr, "usage: orvctl %s %s\n", c.name, c.arguments);
            return kUsage;
        }
        return c.run(count, argv + 2);
    }
    std::fprintf(stderr, "orvctl: unknown command '%s'\n", name.c_str());
    usage(stderr);
    return kUsage;
}

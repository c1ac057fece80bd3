// SPDX-License-Identifier: Apache-2.0
//
// tesubpfrecord: `tesubpf record` for devices, which have no libraries for command lines and
// terminals.
#include <getopt.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "libtesubpf/tesubpf.h"
#include "recording/recorder.h"
#include "records/contract.h"
#include "util/run_program.h"
#include "util/string_util.h"
#include "util/termination_signals.h"

namespace Tesu::Bpf {

namespace {

constexpr char NAME[] = "tesubpfrecord";

constexpr char USAGE[] =
    R"(Usage: tesubpfrecord -o FILE [-t TYPE[,TYPE]] [-s SECONDS] [-m BYTES] [-S NAME]

Records the service's events until Ctrl-C, or for some time. Look at the file elsewhere:
tesubpf top --from FILE, tesubpf watch --from FILE, tesubpf info FILE.

  -o, --output FILE     a file that is not there yet
  -t, --type TYPE       event types by name or number (default: all records)
  -s, --seconds SECONDS end after so long
  -m, --max-size BYTES  1M or more (K, M, G): keep the newest, in FILE and FILE.1
  -S, --socket NAME     of the service, in the abstract namespace

Exit status: 0 ended as asked; 1 never connected to a service; 2 wrong usage; 3 /proc could not be
read, or the file not be written.
)";

constexpr option OPTIONS[] = {{"output", required_argument, nullptr, 'o'},
                              {"type", required_argument, nullptr, 't'},
                              {"seconds", required_argument, nullptr, 's'},
                              {"max-size", required_argument, nullptr, 'm'},
                              {"socket", required_argument, nullptr, 'S'},
                              {"help", no_argument, nullptr, 'h'},
                              {}};

// Adds what the list names; false when it names what there is not.
bool AddTypes(const char* list, std::vector<uint32_t>* types) {
    const std::vector<std::string> words = Split(list, ",");
    for (const std::string& word : words) {
        uint32_t type = 0;
        if (IsDigits(word) && word.size() < 10) {
            type = static_cast<uint32_t>(std::stoul(word));
        } else if (tesubpf_type_number(word.c_str(), &type) != 0) {
            return false;
        }
        types->push_back(type);
    }
    return !words.empty();
}

bool ParseSeconds(const char* text, std::optional<double>* seconds) {
    char* end = nullptr;
    seconds->emplace(std::strtod(text, &end));
    return end != text && *end == '\0' && **seconds > 0 && **seconds <= 1e9;
}

bool ParseSize(const char* text, uint64_t* size) {
    constexpr char UNITS[] = "KMG";
    char* end = nullptr;
    *size = std::strtoull(text, &end, 10);
    if (const char* const unit = *end != '\0' ? strchr(UNITS, *end) : nullptr; unit != nullptr) {
        *size <<= 10 * (unit - UNITS + 1);
        ++end;
    }
    return *end == '\0' && *size >= LEAST_MAX_SIZE;
}

// False when the command line makes no sense.
bool ParseArguments(int argc, char** argv, RecorderOptions* options) {
    bool isRight = true;
    for (int option = 0; isRight && option != -1;) {
        option = getopt_long(argc, argv, "o:t:s:m:S:h", OPTIONS, nullptr);
        switch (option) {
            case 'o':
                options->path = optarg;
                break;
            case 't':
                isRight = AddTypes(optarg, &options->types);
                break;
            case 's':
                isRight = ParseSeconds(optarg, &options->seconds);
                break;
            case 'm':
                isRight = ParseSize(optarg, &options->maxSize);
                break;
            case 'S':
                options->socketName = optarg;
                break;
            case 'h':
                std::fputs(USAGE, stdout);
                std::exit(0);
            default:
                isRight = option == -1;
        }
    }
    return isRight && optind == argc && !options->path.empty();
}

}  // namespace

int Main(int argc, char** argv) {
    RecorderOptions options{
        .path = "", .program = NAME, .socketName = SERVICE_SOCKET_NAME, .types = {}, .seconds = {}};
    if (!ParseArguments(argc, argv, &options)) {
        std::fputs(USAGE, stderr);
        return 2;
    }
    if (options.types.empty()) {
        options.types = UsualTypes();
    }
    const TerminationSignals signals;
    return RunRecorder(options, signals);
}

}  // namespace Tesu::Bpf

int main(int argc, char** argv) {
    return Tesu::Bpf::RunProgram("tesubpfrecord", Tesu::Bpf::Main, argc, argv);
}

// zrimap: the command-line front end of the library.
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "CliError.h"
#include "Commands.h"
#include "Options.h"
#include "Output.h"
#include "Terminal.h"

#ifndef ZRIMAP_VERSION
#define ZRIMAP_VERSION "unknown"
#endif

using namespace zr::cli;

namespace {

int run(int argc, char** argv) {
    CommandLine cl = parseCommandLine(std::vector<std::string>(argv + 1, argv + argc));
    if (cl.global.version) {
        std::cout << "zrimap " << ZRIMAP_VERSION << "\n";
        return kExitOk;
    }
    if (cl.command.empty()) {
        if (cl.global.help) {
            std::cout << globalHelp();
            return kExitOk;
        }
        usageError("no subcommand given (see zrimap --help)");
    }
    const Command* cmd = findCommand(cl.command);
    if (!cmd) usageError("unknown subcommand '" + cl.command + "' (see zrimap --help)");
    ParsedArgs args = parseCommandArgs(cmd->spec, cl.args);
    if (args.help || cl.global.help) {
        std::cout << commandHelp(*cmd);
        return kExitOk;
    }

    Output out(cl.global.json);
    Context ctx(cl.global, args, out);
    cmd->run(ctx);
    ctx.finish();
    std::cout.flush();
    if (!std::cout) localIoError("cannot write to standard output");
    return kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
    installSignalHandlers();
    try {
        return run(argc, argv);
    } catch (const CliError& e) {
        std::cout.flush();
        std::cerr << "zrimap: " << oneLine(e.what()) << std::endl;
        return e.code();
    } catch (const std::bad_alloc&) {
        std::cerr << "zrimap: out of memory" << std::endl;
        return kExitFailed;
    } catch (const std::exception& e) {
        std::cerr << "zrimap: " << oneLine(e.what()) << std::endl;
        return kExitFailed;
    }
}

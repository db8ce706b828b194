// The subcommands: their argument specs, help texts and implementations.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Options.h"
#include "Output.h"
#include "Session.h"

namespace zr {
namespace cli {

class Context {
public:
    Context(const GlobalOptions& global, const ParsedArgs& args, const Output& out)
        : global(global), args(args), out(out) {}

    // Connects on first use: commands check their arguments and local files
    // before this, so a usage or file error costs no connection.
    Session& session();
    void finish();  // logs out when connected

    const GlobalOptions& global;
    const ParsedArgs& args;
    const Output& out;

private:
    std::unique_ptr<Session> m_session;
};

struct Command {
    CommandSpec spec;
    void (*run)(Context&);
};

const std::vector<Command>& commands();
const Command* findCommand(const std::string& name);

std::string globalHelp();
std::string commandHelp(const Command& cmd);

}  // namespace cli
}  // namespace zr

// veltro completion: prints what bash needs to complete the program's words, from the program's
// own table of them.

#include <iostream>

#include "Command.h"

namespace Operator {
namespace {

std::string optionsOf(CLI::App const& command) {
  std::string words;
  for (CLI::Option const* option : command.get_options()) {
    for (auto const& name : option->get_lnames()) words += " --" + name;
  }
  return words;
}

// Words that do not begin with "-" are agents, as the program itself finds them, where the command
// asks one; all others, and what an option takes, are files.
void print(CLI::App const& program) {
  std::string commands;
  std::string cases;
  for (CLI::App const* command : program.get_subcommands(nullptr)) {
    commands += " " + command->get_name();
    cases += "    " + command->get_name() + ") words='" + optionsOf(*command).substr(1) + "'";
    if (command->get_option_no_throw("AGENT") != nullptr) cases += " agents=yes";
    cases += " ;;\n";
  }
  std::cout << R"(# bash completion for veltro
_veltro() {
  local word=${COMP_WORDS[COMP_CWORD]} words='' command='' agents=''
  ((COMP_CWORD > 1)) && command=${COMP_WORDS[1]}
  case $command in
    '') words=')"
            << commands.substr(1) << optionsOf(program) << "' ;;\n"
            << cases << R"(  esac
  if [[ $command && $word != -* ]]; then
    words=''
    if [[ $agents && ${COMP_WORDS[COMP_CWORD-1]} != -* ]]; then
      words=$("${COMP_WORDS[0]}" agents 2>/dev/null | sed '1d; s/ .*//')
    else
      mapfile -t COMPREPLY < <(compgen -f -- "$word")
      return 0
    fi
  fi
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
  return 0
}
complete -o filenames -F _veltro veltro
)";
  if (!std::cout.flush()) throw std::runtime_error("standard output does not take the script");
}

}  // namespace

void addCompletion(CLI::App& program) {
  program.add_subcommand("completion", "Print a script that completes veltro's words in bash")
      ->callback([&program] { print(program); });
}

}  // namespace Operator

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

void print(CLI::App const& program) {
  std::string commands;
  std::string cases;
  for (CLI::App const* command : program.get_subcommands(nullptr)) {
    commands += " " + command->get_name();
    cases += "    " + command->get_name() + ") words='" + optionsOf(*command).substr(1) + "' ;;\n";
  }
  std::cout << "# bash completion for veltro\n"
               "_veltro() {\n"
               "  local word=${COMP_WORDS[COMP_CWORD]} words='' command=''\n"
               "  ((COMP_CWORD > 1)) && command=${COMP_WORDS[1]}\n"
               "  case $command in\n"
               "    '') words='"
            << commands.substr(1) << optionsOf(program) << "' ;;\n"
            << cases
            << "  esac\n"
               "  mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$word\")\n"
               "  [[ $command && $word != -* ]] && mapfile -t -O ${#COMPREPLY[@]} COMPREPLY \\\n"
               "    < <(compgen -f -- \"$word\")\n"
               "  return 0\n"
               "}\n"
               "complete -o filenames -F _veltro veltro\n";
  if (!std::cout.flush()) throw std::runtime_error("standard output does not take the script");
}

}  // namespace

void addCompletion(CLI::App& program) {
  program.add_subcommand("completion", "Print a script that completes veltro's words in bash")
      ->callback([&program] { print(program); });
}

}  // namespace Operator

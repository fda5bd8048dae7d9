#include "host/commands/Manual.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fstream>
#include <vector>

#include "host/text/Failure.h"

namespace orv::host {

namespace {

using Options = std::vector<const CLI::Option*>;

std::vector<const CLI::App*> commandsOf(const CLI::App& app) {
  return app.get_subcommands([](const CLI::App* command) { return !command->get_group().empty(); });
}

Options optionsOf(const CLI::App& command) {
  return command.get_options(
      [](const CLI::Option* option) { return option->nonpositional() && !option->get_group().empty(); });
}

Options argumentsOf(const CLI::App& command) {
  return command.get_options([](const CLI::Option* option) { return option->get_positional(); });
}

bool takesValue(const CLI::Option* option) {
  return option->get_items_expected_max() > 0;
}

// What stands for the value: "none|flush|interval", or a type such as TIME.
std::string valueName(const CLI::Option* option) {
  return option->get_option_text().empty() ? option->get_type_name() : option->get_option_text();
}

// "-o", "--output"
std::vector<std::string> namesOf(const CLI::Option* option) {
  std::vector<std::string> names;
  for (const std::string& name : option->get_snames()) names.push_back("-" + name);
  for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  return names;
}

std::string replaced(std::string text, const std::string& what, const std::string& with) {
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size()) {
    text.replace(at, what.size(), with);
  }
  return text;
}

std::string roff(const std::string& text) {
  std::string out = replaced(replaced(text, "\\", "\\e"), "-", "\\-");
  out = replaced(replaced(out, "\n.", "\n\\&."), "\n'", "\n\\&'");
  return out.starts_with('.') || out.starts_with('\'') ? "\\&" + out : out;
}

std::string sentence(std::string text) {
  if (!text.empty() && text.back() == '.') text.pop_back();
  return text;
}

// A footer's paragraphs, each under the heading that its first words ask for.
std::string footerSections(std::string text) {
  std::string out;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find("\n\n"), text.size());
    const std::string paragraph = text.substr(0, end);
    text.erase(0, std::min(end + 2, text.size()));
    const std::size_t colon = paragraph.find(':');
    if (paragraph.starts_with("Example:")) {
      out += ".SH EXAMPLES\n.nf\n" + roff(paragraph.substr(colon + 2)) + "\n.fi\n";
    } else if (const std::size_t codes = paragraph.find("Exit codes: "); codes != std::string::npos) {
      out += ".SH EXIT STATUS\n" + roff(paragraph.substr(codes + 12)) + "\n";
    } else {
      out += ".SH NOTES\n.nf\n" + roff(paragraph) + "\n.fi\n";
    }
  }
  return out;
}

std::string optionSections(const CLI::App& command) {
  std::string out;
  for (const CLI::Option* const option : optionsOf(command)) {
    std::string names;
    for (const std::string& name : namesOf(option)) {
      names += fmt::format("{}\\fB{}\\fR", names.empty() ? "" : ", ", roff(name));
    }
    if (takesValue(option)) names += fmt::format(" \\fI{}\\fR", roff(valueName(option)));
    out += fmt::format(".TP\n{}\n{}.\n", names, roff(sentence(option->get_description())));
  }
  return out;
}

std::string heading(const std::string& page, const std::string& description, const CLI::App& app) {
  std::string title = page;
  std::transform(title.begin(), title.end(), title.begin(), [](unsigned char c) { return std::toupper(c); });
  return fmt::format(".TH {} 1 \"\" \"flvhost {}\" \"User Commands\"\n.SH NAME\n{} \\- {}\n.SH SYNOPSIS\n",
                     title, app.version(), roff(page), roff(sentence(description)));
}

std::string commandPage(const CLI::App& app, const CLI::App& command) {
  std::string page = heading("flvhost-" + command.get_name(), command.get_description(), app);
  page += fmt::format("\\fBflvhost {}\\fR [\\fIOPTION\\fR]...", roff(command.get_name()));
  for (const CLI::Option* const argument : argumentsOf(command)) {
    page += fmt::format(" \\fI{}\\fR{}", roff(argument->get_name(true)),
                        argument->get_items_expected_max() > 1 ? "..." : "");
  }
  page +=
      "\n.SH DESCRIPTION\n" + roff(command.get_description()) + "\n.SH OPTIONS\n" + optionSections(command);
  return page + footerSections(command.get_footer()) + ".SH SEE ALSO\n.BR flvhost (1)\n";
}

std::string mainPage(const CLI::App& app) {
  std::string page = heading("flvhost", app.get_description(), app);
  page += "\\fBflvhost\\fR \\fICOMMAND\\fR [\\fIOPTION\\fR]...\n.SH DESCRIPTION\n" +
          roff(app.get_description()) + "\n.SH COMMANDS\n";
  std::string others;
  for (const CLI::App* const command : commandsOf(app)) {
    page += fmt::format(".TP\n\\fB{}\\fR\n{}\n", roff(command->get_name()), roff(command->get_description()));
    others += fmt::format("{}.BR flvhost\\-{} (1)", others.empty() ? "" : ",\n", command->get_name());
  }
  return page + ".SH OPTIONS\n" + optionSections(app) + footerSections(app.get_footer()) + ".SH SEE ALSO\n" +
         others + "\n";
}

std::string bashCompletion(const CLI::App& app) {
  std::string commands, words, values;
  for (const CLI::App* const command : commandsOf(app)) {
    commands += " " + command->get_name();
    std::string names;
    for (const CLI::Option* const option : optionsOf(*command)) {
      for (const std::string& name : namesOf(option)) {
        names += " " + name;
        const std::string value = valueName(option);
        if (takesValue(option) && value.find('|') != std::string::npos) {
          values += fmt::format("    \"{} {}\") words=\"{}\" ;;\n", command->get_name(), name,
                                replaced(value, "|", " "));
        }
      }
    }
    words += fmt::format("    {}) words=\"{}\" ;;\n", command->get_name(),
                         names.substr(std::min<std::size_t>(1, names.size())));
  }
  return fmt::format(R"(# bash completion for flvhost
_flvhost() {{
  local current=${{COMP_WORDS[COMP_CWORD]}} before=${{COMP_WORDS[COMP_CWORD-1]}} command=${{COMP_WORDS[1]}} words=
  if [ "$COMP_CWORD" -eq 1 ]; then
    COMPREPLY=($(compgen -W "{} --help --version" -- "$current"))
    return
  fi
  case "$command $before" in
{}  esac
  if [ -n "$words" ]; then
    COMPREPLY=($(compgen -W "$words" -- "$current"))
    return
  fi
  case "$command" in
{}  esac
  case "$current" in
    -*) COMPREPLY=($(compgen -W "$words" -- "$current")) ;;
    *) COMPREPLY=($(compgen -f -- "$current")) ;;
  esac
}}
complete -o filenames -F _flvhost flvhost
)",
                     commands.substr(1), values, words);
}

std::string zshText(const std::string& text) {
  std::string out = text;
  for (const char* const special : {"\\", "[", "]", ":"})
    out = replaced(out, special, std::string("\\") + special);
  return replaced(out, "'", "'\\''");
}

std::string zshValue(const CLI::Option* option) {
  if (!takesValue(option)) return "";
  const std::string value = valueName(option);
  if (value.find('|') != std::string::npos) return ":value:(" + replaced(value, "|", " ") + ")";
  const bool isFile = value == "OUT" || value == "COPY" || value == "PATH";
  return fmt::format(":{}:{}", zshText(value), isFile ? "_files" : "");
}

std::string zshCompletion(const CLI::App& app) {
  std::string commands, cases;
  for (const CLI::App* const command : commandsOf(app)) {
    commands += fmt::format("    '{}:{}'\n", command->get_name(), zshText(command->get_description()));
    cases += fmt::format("    {})\n      _arguments \\\n", command->get_name());
    for (const CLI::Option* const option : optionsOf(*command)) {
      for (const std::string& name : namesOf(option)) {
        cases += fmt::format("        '{}[{}]{}' \\\n", name, zshText(option->get_description()),
                             zshValue(option));
      }
    }
    cases += "        '*:file:_files' ;;\n";
  }
  return fmt::format(R"(#compdef flvhost
_flvhost() {{
  local -a commands
  commands=(
{}  )
  if (( CURRENT == 2 )); then
    _describe command commands
    return
  fi
  local command=$words[2]
  shift words
  (( CURRENT-- ))
  case $command in
{}  esac
}}
_flvhost "$@"
)",
                     commands, cases);
}

void write(const std::string& folder, const std::string& name, const std::string& text) {
  const std::string path = folder + "/" + name;
  std::ofstream out(path, std::ios::binary);
  out << text;
  out.close();
  if (!out) throw hostFault(path + ": cannot be written");
}

}  // namespace

void writeManual(const CLI::App& app, const std::string& folder) {
  write(folder, "flvhost.1", mainPage(app));
  for (const CLI::App* const command : commandsOf(app)) {
    write(folder, "flvhost-" + command->get_name() + ".1", commandPage(app, *command));
  }
  write(folder, "flvhost.bash", bashCompletion(app));
  write(folder, "_flvhost", zshCompletion(app));
}

}  // namespace orv::host

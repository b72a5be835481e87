#include "target_check.h"

#include <elf.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <fstream>

namespace talvex {

namespace {

std::string findOnPath(const std::string& command) {
  if (command.find('/') != std::string::npos) return access(command.c_str(), F_OK) == 0 ? command : "";
  const char* path = getenv("PATH");
  std::string dirs = path != nullptr ? path : "/usr/bin:/bin";
  size_t start = 0;
  while (start <= dirs.size()) {
    const size_t end = dirs.find(':', start);
    const std::string dir = dirs.substr(start, end == std::string::npos ? std::string::npos : end - start);
    const std::string candidate = (dir.empty() ? "." : dir) + "/" + command;
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
    if (end == std::string::npos) break;
    start = end + 1;
  }
  return "";
}

// Whether the program names a dynamic loader (a PT_INTERP entry): a program without one is
// statically linked, and no preloaded library ever enters it.
template <class Header, class ProgramHeader>
bool namesALoader(std::ifstream& in) {
  Header header;
  in.clear();
  in.seekg(0);
  if (!in.read(reinterpret_cast<char*>(&header), sizeof header)) return true;  // cannot tell: let it run
  for (unsigned i = 0; i < header.e_phnum && i < 4096; ++i) {
    ProgramHeader entry;
    in.seekg(static_cast<std::streamoff>(header.e_phoff + i * static_cast<uint64_t>(header.e_phentsize)));
    if (!in.read(reinterpret_cast<char*>(&entry), sizeof entry)) return true;
    if (entry.p_type == PT_INTERP) return true;
  }
  return false;
}

// Whether a 64-bit program has a section of that name: Go's linker marks its programs with
// ".note.go.buildid" and ".go.buildinfo".
bool hasSection(std::ifstream& in, const char* name) {
  Elf64_Ehdr header;
  in.clear();
  in.seekg(0);
  if (!in.read(reinterpret_cast<char*>(&header), sizeof header) || header.e_shstrndx >= header.e_shnum ||
      header.e_shentsize != sizeof(Elf64_Shdr) || header.e_shnum > 65535) {
    return false;
  }
  Elf64_Shdr names;
  in.seekg(static_cast<std::streamoff>(header.e_shoff + header.e_shstrndx * sizeof(Elf64_Shdr)));
  if (!in.read(reinterpret_cast<char*>(&names), sizeof names) || names.sh_size > (16u << 20)) return false;
  std::string table(names.sh_size, '\0');
  in.seekg(static_cast<std::streamoff>(names.sh_offset));
  if (!in.read(&table[0], static_cast<std::streamsize>(table.size()))) return false;
  for (unsigned i = 0; i < header.e_shnum; ++i) {
    Elf64_Shdr section;
    in.seekg(static_cast<std::streamoff>(header.e_shoff + i * sizeof(Elf64_Shdr)));
    if (!in.read(reinterpret_cast<char*>(&section), sizeof section)) return false;
    if (section.sh_name < table.size() && strcmp(table.c_str() + section.sh_name, name) == 0) return true;
  }
  return false;
}

bool hasInterpreter(std::ifstream& in, bool i386) {
  return i386 ? namesALoader<Elf32_Ehdr, Elf32_Phdr>(in) : namesALoader<Elf64_Ehdr, Elf64_Phdr>(in);
}

TargetKind inspect(const std::string& path, std::string* why, int depth) {
  std::ifstream in(path, std::ios::binary);
  char head[64] = {0};
  in.read(head, sizeof head);
  const std::streamsize got = in.gcount();
  if (got >= 2 && head[0] == '#' && head[1] == '!' && depth == 0) {
    std::string line(head + 2, static_cast<size_t>(got - 2));
    line = line.substr(0, line.find('\n'));
    const size_t begin = line.find_first_not_of(" \t");
    const std::string interpreter = begin == std::string::npos ? "" : line.substr(begin, line.find_first_of(" \t", begin) - begin);
    if (interpreter.empty()) {
      *why = path + " is a script with no interpreter";
      return TargetKind::Wrong;
    }
    const TargetKind kind = inspect(interpreter, why, depth + 1);
    if (kind == TargetKind::Wrong || kind == TargetKind::NotFound) *why = path + " runs under " + *why;
    return kind;
  }
  if (got < static_cast<std::streamsize>(sizeof(Elf32_Ehdr)) || memcmp(head, ELFMAG, SELFMAG) != 0) {
    *why = path + " is not a program the agent can be preloaded into";
    return TargetKind::Wrong;
  }
  Elf32_Half machine;
  memcpy(&machine, head + offsetof(Elf32_Ehdr, e_machine), sizeof machine);
  const bool i386 = head[EI_CLASS] == ELFCLASS32 && machine == EM_386;
  const bool x86_64 = head[EI_CLASS] == ELFCLASS64 && machine == EM_X86_64;
  if (!i386 && !x86_64) {
    *why = path + " is not an x86 program; the agent cannot be preloaded into it";
    return TargetKind::Wrong;
  }
  if (x86_64 && (hasSection(in, ".note.go.buildid") || hasSection(in, ".go.buildinfo"))) return TargetKind::Traced;
  if (!hasInterpreter(in, i386)) return TargetKind::Traced;
  return TargetKind::Preloadable;
}

}  // namespace

TargetKind checkTarget(const std::string& command, std::string* path, std::string* why) {
  *path = findOnPath(command);
  if (path->empty()) {
    *why = "command not found: " + command;
    return TargetKind::NotFound;
  }
  return inspect(*path, why, 0);
}

bool linksAddressSanitizerRuntime(const std::string& path) {
  // The runtime's name stands in the program's dynamic string table, near its start.
  FILE* file = fopen(path.c_str(), "rb");
  if (file == nullptr) return false;
  std::string head(1u << 20, '\0');
  head.resize(fread(&head[0], 1, head.size(), file));
  fclose(file);
  return head.find("libasan.so.") != std::string::npos;
}

}  // namespace talvex

// A directory of files put into a file system in the tree and got out again, by the tarns command,
// against cp -r. All are processes of their own, which are measured from outside.
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "Bench.h"
#include "ChildProcess.h"
#include "Machine.h"

namespace tarns::bench {

namespace {

namespace fs = std::filesystem;

constexpr const char* kOther = "cp";

// A copy of what is to be put, so that both sides read from one disk and nothing changes meanwhile.
fs::path Stage(const fs::path& tree, const fs::path& to, bool isPart) {
  fs::create_directories(to);
  std::vector<fs::path> entries;
  for (const auto& entry : fs::directory_iterator(tree)) entries.push_back(entry.path());
  std::ranges::sort(entries);
  if (isPart) entries.resize((entries.size() + 9) / 10);
  ChildProcess copying{{"cp", "-a", "--"}};
  copying.arguments.insert(copying.arguments.end(), entries.begin(), entries.end());
  copying.arguments.push_back(to);
  copying.run();
  return to;
}

std::size_t CountFiles(const fs::path& directory) {
  std::size_t count = 0;
  for (const auto& entry : fs::recursive_directory_iterator(directory)) {
    count += entry.is_directory() && !entry.is_symlink() ? 0 : 1;
  }
  return count;
}

std::string BytesOf(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) throw std::runtime_error("Cannot read " + file.string());
  return {std::istreambuf_iterator<char>(in), {}};
}

struct stat StatusOf(const fs::path& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) throw std::runtime_error("Cannot find " + path.string());
  return status;
}

// Whether both are the same in kind, permissions, time and bytes; directories, without what is in
// them.
bool IsSame(const fs::path& one, const fs::path& other) {
  const struct stat first = StatusOf(one), second = StatusOf(other);
  if ((first.st_mode & S_IFMT) != (second.st_mode & S_IFMT)) return false;
  if (first.st_mtim.tv_sec != second.st_mtim.tv_sec ||
      first.st_mtim.tv_nsec != second.st_mtim.tv_nsec) {
    return false;
  }
  if (S_ISLNK(first.st_mode)) return fs::read_symlink(one) == fs::read_symlink(other);
  if (first.st_mode != second.st_mode) return false;
  return !S_ISREG(first.st_mode) || BytesOf(one) == BytesOf(other);
}

void VerifySameTree(const fs::path& expected, const fs::path& found) {
  std::size_t entries = 0;
  for (const auto& entry : fs::recursive_directory_iterator(expected)) {
    const fs::path relative = entry.path().lexically_relative(expected);
    Verify(IsSame(entry.path(), found / relative), kPeer, relative.string() + " has changed");
    ++entries;
  }
  const auto walk = fs::recursive_directory_iterator(found);
  Verify(static_cast<std::size_t>(std::distance(begin(walk), end(walk))) == entries, kPeer,
         "get made files that were not put");
}

// Seconds of both, so that what was written is on the disk.
double RunAndSync(const ChildProcess& process, const fs::path& written) {
  const double seconds = process.run();
  return seconds + ChildProcess{{"sync", "-f", written}}.run();
}

}  // namespace

void Bench::files() {
  const fs::path program = fs::path(OwnProgram()).replace_filename("tarns");
  if (!fs::exists(program)) return report_.note("vfs: not measured, there is no tarns command");
  if (!fs::is_directory(options_.tree)) {
    return report_.note("vfs: not measured, there is no directory " + options_.tree.string());
  }
  const fs::path place = options_.scratch / "vfs";
  const fs::path source = Stage(options_.tree, place / "source", options_.quick);
  const auto count = static_cast<double>(CountFiles(source));
  std::vector<double> put, got, copies;
  for (int round = 0; round < options_.rounds; ++round) {
    // Nothing is removed meanwhile: some file systems make files slowly after that.
    const fs::path made = place / std::to_string(round);
    const fs::path database = made / "db", target = made / "got", copied = made / "copied";
    fs::create_directory(made);
    ChildProcess{{program, "init", database}}.run();
    WarmPageCache(source);
    ::sync();
    // Whatever put has stored is durable when it ends.
    put.push_back(count / ChildProcess{{program, "-d", database, "vfs", "put", source, "f"}}.run());
    ::sync();
    copies.push_back(count / RunAndSync({{"cp", "-r", source, copied}}, copied));
    ::sync();
    got.push_back(count /
                  RunAndSync({{program, "-d", database, "vfs", "get", "f", target}}, target));
    VerifySameTree(source, target);
  }
  const Target half{Target::kAtLeast, 0.5, kOther};
  const double copying = Median(std::move(copies));
  report_.add({"vfs put", "files/s", {{kPeer, Median(std::move(put))}, {kOther, copying}}, half});
  report_.add(
      {"vfs get and sync", "files/s", {{kPeer, Median(std::move(got))}, {kOther, copying}}, half});
  report_.note(fmt::format("vfs: {} files of {:.1f} MiB; cp -r and sync -f: {:.0f} files/s", count,
                           static_cast<double>(BytesBelow(source)) / (1 << 20), copying));
  fs::remove_all(place);
}

}  // namespace tarns::bench

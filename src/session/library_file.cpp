#include "session/library_file.h"

#include <elf.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>
#include <system_error>

namespace tarns {

namespace {

constexpr std::string_view kAbiSymbol = "tarns_library_abi";
constexpr std::size_t kLongestAbi = 64;             // bytes
constexpr std::uint64_t kLargestTable = 256 << 20;  // bytes

#if defined(__x86_64__)
constexpr Elf64_Half kMachine = EM_X86_64;
#elif defined(__aarch64__)
constexpr Elf64_Half kMachine = EM_AARCH64;
#elif defined(__riscv)
constexpr Elf64_Half kMachine = EM_RISCV;
#else
#error "Say which machine the libraries of this platform are for."
#endif

[[noreturn]] void ThrowDamaged() { throw LibraryProblem("is damaged, or is no shared library"); }

// 0 at the end of the file.
std::size_t ReadSome(int file, void* into, std::size_t size, off_t offset) {
  for (;;) {
    const ssize_t got = pread(file, into, size, offset);
    if (got >= 0) return static_cast<std::size_t>(got);
    if (errno == EINTR) continue;
    throw LibraryProblem(fmt::format("cannot be read: {}", std::generic_category().message(errno)));
  }
}

class Reader {
 public:
  explicit Reader(int file) : file_(file) {
    struct stat status {};
    if (fstat(file, &status) != 0) ThrowDamaged();
    size_ = static_cast<std::uint64_t>(status.st_size);
    header_ = one<Elf64_Ehdr>(0);
    verifyHeader();
    sections_ = table<Elf64_Shdr>(header_.e_shoff, header_.e_shnum);
    segments_ = table<Elf64_Phdr>(header_.e_phoff, header_.e_phnum);
  }

  LibraryFile read() const {
    LibraryFile library;
    for (const Elf64_Shdr& section : sections_) {
      if (section.sh_type == SHT_DYNSYM && library.abi.empty()) library.abi = abiIn(section);
      if (section.sh_type == SHT_DYNAMIC) readLinks(section, library);
    }
    return library;
  }

 private:
  void verifyHeader() const {
    const unsigned char* const identity = header_.e_ident;
    if (std::memcmp(identity, ELFMAG, SELFMAG) != 0) ThrowDamaged();
    static_assert(std::endian::native == std::endian::little);
    if (identity[EI_CLASS] != ELFCLASS64 || identity[EI_DATA] != ELFDATA2LSB ||
        header_.e_machine != kMachine) {
      throw LibraryProblem("was built for another kind of machine");
    }
    if (header_.e_type != ET_DYN || header_.e_shentsize != sizeof(Elf64_Shdr) ||
        header_.e_phentsize != sizeof(Elf64_Phdr)) {
      ThrowDamaged();
    }
  }

  void readAt(std::uint64_t offset, void* into, std::uint64_t size) const {
    if (offset > size_ || size > size_ - offset) ThrowDamaged();
    auto* at = static_cast<char*>(into);
    while (size > 0) {
      const std::size_t got = ReadSome(file_, at, size, static_cast<off_t>(offset));
      if (got == 0) ThrowDamaged();
      at += got;
      offset += got;
      size -= got;
    }
  }

  template <class T>
  T one(std::uint64_t offset) const {
    T value;
    readAt(offset, &value, sizeof(T));
    return value;
  }

  template <class T>
  std::vector<T> table(std::uint64_t offset, std::uint64_t count) const {
    if (count > kLargestTable / sizeof(T) || count > size_ / sizeof(T)) ThrowDamaged();
    std::vector<T> values(count);
    readAt(offset, values.data(), count * sizeof(T));
    return values;
  }

  // The texts that the names in a section are offsets into; ends with a NUL.
  std::vector<char> textsOf(const Elf64_Shdr& section) const {
    if (section.sh_link >= sections_.size()) ThrowDamaged();
    const Elf64_Shdr& texts = sections_[section.sh_link];
    if (texts.sh_type != SHT_STRTAB) ThrowDamaged();
    std::vector<char> bytes = table<char>(texts.sh_offset, texts.sh_size);
    if (bytes.empty() || bytes.back() != '\0') ThrowDamaged();
    return bytes;
  }

  static std::string_view TextAt(const std::vector<char>& texts, std::uint64_t offset) {
    if (offset >= texts.size()) ThrowDamaged();
    return texts.data() + offset;
  }

  std::string abiIn(const Elf64_Shdr& section) const {
    const std::vector<char> texts = textsOf(section);
    for (const auto& symbol :
         table<Elf64_Sym>(section.sh_offset, section.sh_size / sizeof(Elf64_Sym))) {
      if (symbol.st_shndx == SHN_UNDEF || TextAt(texts, symbol.st_name) != kAbiSymbol) continue;
      std::string abi(std::min<std::uint64_t>(symbol.st_size, kLongestAbi), '\0');
      readAt(placeOf(symbol.st_value), abi.data(), abi.size());
      return abi.substr(0, abi.find('\0'));
    }
    return {};
  }

  // Where in the file that is which is at an address once it is loaded.
  std::uint64_t placeOf(std::uint64_t address) const {
    for (const Elf64_Phdr& segment : segments_) {
      if (segment.p_type == PT_LOAD && address >= segment.p_vaddr &&
          address - segment.p_vaddr < segment.p_filesz) {
        return segment.p_offset + (address - segment.p_vaddr);
      }
    }
    ThrowDamaged();
  }

  void readLinks(const Elf64_Shdr& section, LibraryFile& library) const {
    const std::vector<char> texts = textsOf(section);
    for (const auto& entry :
         table<Elf64_Dyn>(section.sh_offset, section.sh_size / sizeof(Elf64_Dyn))) {
      if (entry.d_tag == DT_NULL) break;
      if (entry.d_tag == DT_NEEDED) library.needed.emplace_back(TextAt(texts, entry.d_un.d_val));
      if (entry.d_tag == DT_SONAME) library.soname = TextAt(texts, entry.d_un.d_val);
    }
  }

  const int file_;
  std::uint64_t size_ = 0;
  Elf64_Ehdr header_{};
  std::vector<Elf64_Shdr> sections_;
  std::vector<Elf64_Phdr> segments_;
};

}  // namespace

LibraryFile ReadLibraryFile(int file) { return Reader(file).read(); }

LibraryContents ReadLibraryContents(int file) {
  const std::unique_ptr<XXH3_state_t, decltype(&XXH3_freeState)> state(XXH3_createState(),
                                                                       XXH3_freeState);
  if (state == nullptr) throw std::bad_alloc();
  XXH3_128bits_reset(state.get());
  std::vector<char> bytes(1 << 16);
  off_t offset = 0;
  while (const std::size_t got = ReadSome(file, bytes.data(), bytes.size(), offset)) {
    XXH3_128bits_update(state.get(), bytes.data(), got);
    offset += static_cast<off_t>(got);
  }
  const XXH128_hash_t hash = XXH3_128bits_digest(state.get());
  return {hash.high64, hash.low64};
}

}  // namespace tarns

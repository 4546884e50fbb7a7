#include "openai/elf.hpp"

#include <bit>
#include <cstdint>
#include <cstring>
#include <fstream>

#include <link.h>

namespace tovren_mapstead::openai {
namespace {

using Header = ElfW(Ehdr);
using Segment = ElfW(Phdr);

constexpr unsigned char CLASS = sizeof(void*) == 8 ? ELFCLASS64 : ELFCLASS32;
constexpr unsigned char DATA =
    std::endian::native == std::endian::little ? ELFDATA2LSB : ELFDATA2MSB;

// Reads a file whose offsets and sizes are not trusted.
class Bytes {
 public:
  explicit Bytes(const std::filesystem::path& file)
      : _stream(file, std::ios::binary | std::ios::ate) {
    const std::streamoff size = _stream.tellg();
    _size = size < 0 ? 0 : static_cast<std::uint64_t>(size);
  }

  [[nodiscard]] bool hold(std::uint64_t offset, std::uint64_t count) const {
    return offset <= _size && count <= _size - offset;
  }

  // Returns false if the file is too short or cannot be read.
  template <class Value>
  bool read(std::uint64_t offset, Value& value) {
    if (!hold(offset, sizeof value)) return false;
    // An offset inside the file fits the type.
    _stream.seekg(static_cast<std::streamoff>(offset));
    return static_cast<bool>(_stream.read(reinterpret_cast<char*>(&value), sizeof value));
  }

 private:
  std::ifstream _stream;
  std::uint64_t _size = 0;
};

}  // namespace

bool is_truncated(const std::filesystem::path& file) {
  Bytes bytes(file);
  Header header{};
  if (!bytes.read(0, header)) return false;
  if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_ident[EI_CLASS] != CLASS ||
      header.e_ident[EI_DATA] != DATA || header.e_phentsize != sizeof(Segment)) {
    return false;
  }
  // The products cannot overflow: their factors have 16 bits.
  const std::uint64_t sections = std::uint64_t{header.e_shnum} * header.e_shentsize;
  const std::uint64_t segments = std::uint64_t{header.e_phnum} * header.e_phentsize;
  if (!bytes.hold(header.e_shoff, sections) || !bytes.hold(header.e_phoff, segments)) return true;
  for (std::uint64_t i = 0; i < header.e_phnum; ++i) {
    Segment segment{};
    if (!bytes.read(header.e_phoff + i * sizeof segment, segment)) return true;
    if (segment.p_type == PT_LOAD && !bytes.hold(segment.p_offset, segment.p_filesz)) return true;
  }
  return false;
}

}  // namespace tovren_mapstead::openai

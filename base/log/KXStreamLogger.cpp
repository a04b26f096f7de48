#include "KXStreamLogger.h"

#include <cstdint>
#include <cstring>
#include <iomanip>
#include <ios>
#include <ostream>
#include <string>

namespace {

struct EnumName {
  int value;
  const char* name;
};

template <size_t N>
void printEnum(std::ostream& os, int value, const EnumName (&names)[N], const char* unknownPrefix) {
  for (const EnumName& e : names) {
    if (e.value == value) {
      os << e.name;
      return;
    }
  }
  // Decimal without touching the stream's base: a caller that switched to
  // hex for the numbers around this one must keep it.
  os << unknownPrefix << std::to_string(value);
}

constexpr EnumName kFileTypeNames[] = {
    {KX_FILETYPE_REG, "KX_FILETYPE_REG"},         {KX_FILETYPE_DIR, "KX_FILETYPE_DIR"},
    {KX_FILETYPE_SYMLINK, "KX_FILETYPE_SYMLINK"}, {KX_FILETYPE_NOTEXISTS, "KX_FILETYPE_NOTEXISTS"},
    {KX_FILETYPE_EFS, "KX_FILETYPE_EFS"},         {KX_FILETYPE_FIFO, "KX_FILETYPE_FIFO"},
    {KX_FILETYPE_SOCK, "KX_FILETYPE_SOCK"},       {KX_FILETYPE_BSPE, "KX_FILETYPE_BSPE"},
    {KX_FILETYPE_CSPE, "KX_FILETYPE_CSPE"},       {KX_FILETYPE_DOOR, "KX_FILETYPE_DOOR"},
    {KX_FILETYPE_UNKNOWN, "KX_FILETYPE_UNKNOWN"}, {KX_FILETYPE_OUTOFPROT, "KX_FILETYPE_OUTOFPROT"},
    {KX_FILETYPE_ERROR, "KX_FILETYPE_ERROR"},     {KX_FILETYPE_RAWDISK, "KX_FILETYPE_RAWDISK"},
    {KX_FILETYPE_RAWVOL, "KX_FILETYPE_RAWVOL"},   {KX_FILETYPE_MNTPOINT, "KX_FILETYPE_MNTPOINT"},
};

constexpr EnumName kOpenModeNames[] = {
    {KX_OPENMODE_RWNOTEXISTING, "KX_OPENMODE_RWNOTEXISTING"},
    {KX_OPENMODE_RWEXISTING, "KX_OPENMODE_RWEXISTING"},
    {KX_OPENMODE_RWCANCREATE, "KX_OPENMODE_RWCANCREATE"},
    {KX_OPENMODE_RDONLY, "KX_OPENMODE_RDONLY"},
};

constexpr EnumName kTunableTypeNames[] = {
    {KX_TUNABLE_TYPE_UNDEF, "KX_TUNABLE_TYPE_UNDEF"}, {KX_TUNABLE_TYPE_BOOL, "KX_TUNABLE_TYPE_BOOL"},
    {KX_TUNABLE_TYPE_U32, "KX_TUNABLE_TYPE_U32"},     {KX_TUNABLE_TYPE_U64, "KX_TUNABLE_TYPE_U64"},
    {KX_TUNABLE_TYPE_STR, "KX_TUNABLE_TYPE_STR"},
};

void restoreDefaults(std::ostream& os) { os << std::dec << std::nouppercase << std::setfill(' '); }

}  // namespace

void KXStreamLogger::clear() {
  // One huge message (a server's text, say) would otherwise stay as the
  // buffer's high-water mark for the life of the process, and every later
  // message would be copied out at that length. Only the buffer is swapped:
  // the format flags stay in force across messages.
  if (tellp() > static_cast<std::streamoff>(kKeptBuffer)) {
    Buffer fresh;
    _buf.swap(fresh);
  }
  if (!seekp(0)) setstate(std::ios_base::failbit);
  std::ios::clear();
}

KXStreamLogger& KXStreamLogger::operator<<(char c) {
  std::ostream::put(c);
  return *this;
}

KXStreamLogger& KXStreamLogger::operator<<(unsigned char c) {
  std::ostream::put(static_cast<char>(c));
  return *this;
}

KXStreamLogger& KXStreamLogger::operator<<(const char* s) {
  static_cast<std::ostream&>(*this) << (s != nullptr ? s : "(null)");
  return *this;
}

KXStreamLogger& KXStreamLogger::operator<<(const std::string& s) {
  write(s.data(), static_cast<std::streamsize>(s.size()));
  return *this;
}

KXStreamLogger& KXStreamLogger::operator<<(bool b) {
  static_cast<std::ostream&>(*this) << (b ? "true" : "false");
  return *this;
}

KXStreamLogger& KXStreamLogger::operator<<(const void* p) {
  static_cast<std::ostream&>(*this) << '@' << std::hex << std::showbase << reinterpret_cast<uintptr_t>(p)
                                    << std::noshowbase << std::dec;
  return *this;
}

KXStreamLogger& KXStreamLogger::operator<<(KXStreamLoggerAdapter a) {
  if (a.impl != nullptr) a.impl->print(*this);
  return *this;
}

KXStreamLogger& KXStreamLogger::operator<<(const KXStreamLoggerImpl& obj) {
  obj.print(*this);
  return *this;
}

KXStreamLogger& KXStreamLogger::operator<<(Base b) {
  switch (static_cast<int>(b)) {
    case Oct:
      setf(std::ios_base::oct, std::ios_base::basefield);
      break;
    case Dec:
      setf(std::ios_base::dec, std::ios_base::basefield);
      break;
    case Hex:
      setf(std::ios_base::hex, std::ios_base::basefield);
      break;
    default:
      static_cast<std::ostream&>(*this) << " < unknown base " << static_cast<unsigned int>(b) << " > ";
      break;
  }
  return *this;
}

KXStreamLogger& KXStreamLogger::operator<<(Spec s) {
  if (static_cast<int>(s) == Endl) {
    static_cast<std::ostream&>(*this) << std::endl;
  } else {
    static_cast<std::ostream&>(*this) << " < unknown spec " << static_cast<int>(s) << " > ";
  }
  return *this;
}

KXStreamLogger& KXStreamLogger::operator<<(const KXLogTabl<const unsigned char*>& t) {
  for (uint32_t i = 0; i < t.count; ++i) {
    if (i != 0) *this << t.sep;
    *this << t.items[i];
  }
  return *this;
}

KXStreamLogger& KXStreamLogger::operator<<(KXFileType t) {
  printEnum(*this, t, kFileTypeNames, "KX_FILETYPE_UNKNOWN_");
  return *this;
}

KXStreamLogger& KXStreamLogger::operator<<(KXOpenMode m) {
  printEnum(*this, m, kOpenModeNames, "KX_OPENMODE_UNKNOWN_");
  return *this;
}

KXStreamLogger& KXStreamLogger::operator<<(KXTunableType t) {
  printEnum(*this, t, kTunableTypeNames, "KX_TUNABLE_TYPE_UNKNOWN_");
  return *this;
}

// ---- printable objects --------------------------------------------------------

void KXLogBlob::print(std::ostringstream& os) const {
  if (_len == 0 || _data == nullptr) {
    os << "UNDEF";
    return;
  }
  const unsigned char* bytes = _data + _offset;
  if (_mode == Inline) {
    os << "0x" << std::hex << std::setfill('0');
    for (uint64_t i = 0; i < _len; ++i) os << std::setw(2) << static_cast<unsigned>(bytes[i]);
    restoreDefaults(os);
    return;
  }
  if (_mode != Table) return;

  constexpr uint64_t kRow = 16;
  const uint64_t rows = (_len + kRow - 1) / kRow;
  if (_len > kRow) os << std::endl;
  os << std::hex << std::uppercase << std::setfill('0');
  for (uint64_t r = 0; r < rows; ++r) {
    if (r != 0) os << std::endl;
    const uint64_t start = r * kRow;
    os << std::setw(4) << start << "   ";
    for (uint64_t c = 0; c < kRow; ++c) {
      if (start + c < _len) {
        os << std::setw(2) << static_cast<unsigned>(bytes[start + c]) << ' ';
      } else {
        os << "   ";
      }
    }
    os << "   ";
    for (uint64_t c = 0; c < kRow && start + c < _len; ++c) {
      const unsigned char b = bytes[start + c];
      os.put(b >= 32 && b <= 126 ? static_cast<char>(b) : '.');
    }
  }
  restoreDefaults(os);
}

void KXLogHStr::print(std::ostringstream& os) const {
  if (_text == nullptr) {
    os << "\"<null>\"";
    return;
  }
  const size_t head = static_cast<uint16_t>(_head);
  const size_t tail = static_cast<uint16_t>(_tail);
  const size_t n = std::strlen(_text);
  if (n >= head + tail) {
    os.write(_text, static_cast<std::streamsize>(head));
    os << "...";
    os.write(_text + n - tail, static_cast<std::streamsize>(tail));
  } else {
    os << '"' << _text << '"';
  }
}

#pragma once

#include <cstdint>
#include <string>

#include "KXStreamLogger.h"

// A four-part agent version. A missing or negative component is -1.
class Version : public KXStreamLoggerImpl {
 public:
  Version() = default;
  Version(int32_t major, int32_t minor, int32_t third, int32_t fourth)
      : major(major), minor(minor), third(third), fourth(fourth) {}

  // Reads "%d.%d.%d.%d" from the start of text (anything after the fourth
  // number is ignored). Negative components become -1; when fewer than four
  // numbers are read all four are -1.
  static Version parse(const std::string& text);

  // True when no component could be read: the text was no version at all.
  bool isInvalid() const { return major == -1 && minor == -1 && third == -1 && fourth == -1; }

  // Component by component as signed numbers; the first difference decides.
  int compare(const Version& other) const;
  bool operator<(const Version& other) const { return compare(other) < 0; }
  bool operator<=(const Version& other) const { return compare(other) <= 0; }
  bool operator==(const Version& other) const { return compare(other) == 0; }

  void print(std::ostringstream& os) const override;
  std::string toString() const;

  int32_t major = -1;
  int32_t minor = -1;
  int32_t third = -1;
  int32_t fourth = -1;
};

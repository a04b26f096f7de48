#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>
#include <IOKit/IOKitLib.h>
#include <mach/mach.h>
#include <mach/mach_traps.h>
#include <stdio.h>
#include <sys/sysctl.h>
#include <unistd.h>

#include "osal_sysinfo.h"

namespace {
// Shared libraries were mapped here by the older dyld; regions in this range
// count only when private.
constexpr mach_vm_address_t kSharedLibStart = 0x90000000;
constexpr mach_vm_address_t kSharedLibEnd = 0xB0000000;

// Gestalt is deprecated but is the only answer on systems whose sysctl does
// not know the product version.
void gestaltVersion(int* major, int* minor, int* patch) {
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wdeprecated-declarations"
  SInt32 v = 0;
  *major = Gestalt(gestaltSystemVersionMajor, &v) == noErr ? v : 0;
  *minor = Gestalt(gestaltSystemVersionMinor, &v) == noErr ? v : 0;
  *patch = Gestalt(gestaltSystemVersionBugFix, &v) == noErr ? v : 0;
#pragma clang diagnostic pop
}

// Bytes of the task's memory that no other task shares.
unsigned long long privateBytes(task_t task) {
  vm_size_t pageSize = 0;
  host_page_size(mach_host_self(), &pageSize);
  unsigned long long total = 0;
  vm_address_t address = 0;
  vm_size_t size = 0;
  for (;; address += size) {
    vm_region_top_info_data_t top;
    mach_msg_type_number_t count = VM_REGION_TOP_INFO_COUNT;
    mach_port_t object = MACH_PORT_NULL;
    if (vm_region_64(task, &address, &size, VM_REGION_TOP_INFO, reinterpret_cast<vm_region_info_t>(&top), &count,
                     &object) != KERN_SUCCESS) {
      break;
    }
    if (address >= kSharedLibStart && address < kSharedLibEnd) {
      unsigned char mode = top.share_mode;
      if (mode == SM_EMPTY) {
        vm_region_extended_info_data_t ext;
        count = VM_REGION_EXTENDED_INFO_COUNT;
        if (vm_region_64(task, &address, &size, VM_REGION_EXTENDED_INFO, reinterpret_cast<vm_region_info_t>(&ext),
                         &count, &object) != KERN_SUCCESS) {
          break;
        }
        mode = ext.share_mode;
      }
      if (mode == SM_PRIVATE) total += size;
      continue;
    }
    if (top.share_mode == SM_PRIVATE) {
      total += size;
    } else if (top.share_mode == SM_COW) {
      total += top.ref_count == 1 ? size : static_cast<unsigned long long>(top.private_pages_resident) * pageSize;
    }
  }
  return total;
}
}  // namespace

void osal_getReleaseName(char* out, size_t size) {
  char text[256] = {};
  size_t len = sizeof text;
  int major = 0, minor = 0, patch = 0;
  if (sysctlbyname("kern.osproductversion", text, &len, nullptr, 0) != 0 ||
      !osal_parseProductVersion(text, len, &major, &minor, &patch)) {
    gestaltVersion(&major, &minor, &patch);
  }
  osal_formatMacOSRelease(major, minor, patch, out, size);
}

std::string osal_getSerialNumber() {
  io_service_t service = IOServiceGetMatchingService(MACH_PORT_NULL, IOServiceMatching("IOPlatformExpertDevice"));
  if (service == IO_OBJECT_NULL) return std::string();
  CFTypeRef property =
      IORegistryEntryCreateCFProperty(service, CFSTR("IOPlatformSerialNumber"), kCFAllocatorDefault, 0);
  IOObjectRelease(service);
  if (property == nullptr) return std::string();
  char serial[256] = {};
  const bool ok = CFGetTypeID(property) == CFStringGetTypeID() &&
                  CFStringGetCString(static_cast<CFStringRef>(property), serial, sizeof serial, kCFStringEncodingUTF8);
  CFRelease(property);
  return ok ? std::string(serial) : std::string();
}

int osal_getRAMInfos(unsigned int& privateMiB, unsigned int& residentMiB, unsigned long long& physicalMiB) {
  task_t task = MACH_PORT_NULL;
  if (task_for_pid(mach_task_self(), getpid(), &task) != KERN_SUCCESS) return -1;
  mach_task_basic_info_data_t info;
  mach_msg_type_number_t count = MACH_TASK_BASIC_INFO_COUNT;
  if (task_info(task, MACH_TASK_BASIC_INFO, reinterpret_cast<task_info_t>(&info), &count) != KERN_SUCCESS) return -1;
  residentMiB = static_cast<unsigned int>(info.resident_size >> 20);
  privateMiB = static_cast<unsigned int>(privateBytes(task) >> 20);

  int mib[2] = {CTL_HW, HW_MEMSIZE};
  uint64_t memSize = 0;
  size_t len = sizeof memSize;
  if (sysctl(mib, 2, &memSize, &len, nullptr, 0) != 0) return -1;
  physicalMiB = memSize >> 20;
  return 0;
}

// The string operations every stream shares, built on its read and write.
#include <cstring>

#include "io/stream.h"

PStream::~PStream() = default;

int PStream::writeText(const char* text) {
  uint32_t written = 0;
  return write(text, static_cast<uint32_t>(std::strlen(text)), &written);
}

int PStream::writeString(const void* bytes, uint16_t length, uint32_t* written) {
  const uint8_t prefix[2] = {static_cast<uint8_t>(length & 0xFF),
                             static_cast<uint8_t>(length >> 8)};
  uint32_t count = 0;
  int status = write(prefix, 2, &count);
  *written = count;
  if (count < 2) return -1;
  if (status != 0 || length == 0) return status;
  status = write(bytes, length, &count);
  *written = count + 2;
  return status;
}

int PStream::readString(void* buffer, uint16_t* length, uint32_t* bytesRead) {
  *length = 0;
  uint8_t prefix[2];
  uint32_t count = 0;
  int status = read(prefix, 2, &count);
  *bytesRead = count;
  if (count < 2) return -1;
  if (status != 0) return status;
  *length = static_cast<uint16_t>(prefix[0] | (prefix[1] << 8));
  if (*length == 0) return 0;
  status = read(buffer, *length, &count);
  *bytesRead = count + 2;
  return status;
}

int PStream::readStringZ(char* buffer, uint16_t* capacity, uint32_t* bytesRead) {
  uint8_t prefix[2];
  uint32_t count = 0;
  int status = read(prefix, 2, &count);
  *bytesRead = count;
  if (count < 2) return -1;
  if (status != 0) return status;
  const uint16_t length = static_cast<uint16_t>(prefix[0] | (prefix[1] << 8));
  if (length >= *capacity) return -1;
  status = read(buffer, length, &count);
  *bytesRead = count + 2;
  buffer[count] = '\0';
  *capacity = length;
  return status;
}

// One entry per text parser, shared by the libFuzzer targets and the corpus replay test.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <map>
#include <string>

using FuzzEntry = void (*)(const uint8_t* data, size_t size);

void FuzzMaps(const uint8_t* data, size_t size);
void FuzzSysfsNumber(const uint8_t* data, size_t size);
void FuzzFdInfo(const uint8_t* data, size_t size);
void FuzzReservedStat(const uint8_t* data, size_t size);
void FuzzMemblock(const uint8_t* data, size_t size);
void FuzzIomem(const uint8_t* data, size_t size);
void FuzzMeminfo(const uint8_t* data, size_t size);
void FuzzKmodule(const uint8_t* data, size_t size);
void FuzzBufinfo(const uint8_t* data, size_t size);

// Target name (also its corpus folder) to entry.
const std::map<std::string, FuzzEntry>& FuzzEntries();

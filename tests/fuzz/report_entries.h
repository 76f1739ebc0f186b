// Entries that run whole reports over a device tree written from the input (report_entries.cpp).
#pragma once

#include "entries.h"

void FuzzReportReserved(const uint8_t* data, size_t size);
void FuzzReportKmem(const uint8_t* data, size_t size);
void FuzzReportDmabuf(const uint8_t* data, size_t size);

// Target name (also its corpus folder) to entry.
const std::map<std::string, FuzzEntry>& ReportFuzzEntries();

// Time stamps used as folder and file names, and their readable form.
#pragma once

#include <ctime>
#include <string>

// Local time of system_facts().now() as "YYYY_MM_DD-HH_MM_SS".
std::string time_stamp();
std::string time_stamp(std::time_t when);
std::string time_stamp(const std::tm& when);

// "2024_05_02-09_06_30" -> "2 May 9:06AM". Hours up to 12 read "AM" (noon is
// "12:30AM", midnight "0:30AM"), later hours lose 12 and read "PM"; users of
// the result expect exactly this. Throws std::runtime_error for a text that
// isn't a stamp.
std::string make_date_time_user_readable(const std::string& stamp);

// Whether stamp_a lies before stamp_b; a strict weak order for std::sort.
// Texts that aren't stamps come first, in text order among themselves.
bool compare_date_time(const std::string& stamp_a, const std::string& stamp_b);

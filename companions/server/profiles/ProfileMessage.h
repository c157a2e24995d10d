#pragma once

#include <protozero/types.hpp>

/// The fields of pprof's message "profile.proto" that we read, by their numbers.
namespace kolvan::server::profiles::pprof {

enum class ProfileField : protozero::pbf_tag_type {
    SampleType = 1,
    Sample = 2,
    Mapping = 3,
    Location = 4,
    Function = 5,
    StringTable = 6,
    TimeNanos = 9,
    DurationNanos = 10,
    Comment = 13,
    DefaultSampleType = 14,
};

enum class ValueTypeField : protozero::pbf_tag_type { Type = 1, Unit = 2 };

enum class SampleField : protozero::pbf_tag_type { LocationId = 1, Value = 2, Label = 3 };

enum class LabelField : protozero::pbf_tag_type { Key = 1, Text = 2, Number = 3 };

enum class MappingField : protozero::pbf_tag_type { Id = 1, FileName = 5, BuildId = 6 };

enum class LocationField : protozero::pbf_tag_type { Id = 1, MappingId = 2, Address = 3, Line = 4 };

enum class LineField : protozero::pbf_tag_type { FunctionId = 1 };

enum class FunctionField : protozero::pbf_tag_type { Id = 1, Name = 2 };

}  // namespace kolvan::server::profiles::pprof

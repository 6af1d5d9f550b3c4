#include "status/metrics_internal.h"

#include "support.h"

// The two counters that parse finds in text.
template <class Number> static std::string counters(void (*parse)(FILE *, Number *, Number *), const char *text)
{
    Number first = 1, second = 1;
    FILE *stream = fmemopen((void *)text, strlen(text), "r");
    parse(stream, &first, &second);
    fclose(stream);
    return std::to_string(first) + " " + std::to_string(second);
}

TEST(Metrics, ProcessorAndMemoryCounters)
{
    for (const Texts &row : examples("processor-and-memory")) {
        const char *text = row[1].c_str();
        EXPECT_EQ(row[2],
                  row[0] == "/proc/stat" ? counters(metrics_cpu_parse, text) : counters(metrics_mem_parse, text))
            << text;
    }
}

TEST(Metrics, BlacklistExcludesByTheEndOfAnEntry)
{
    for (const Texts &row : examples("interface-blacklist"))
        EXPECT_EQ(row[2] == "yes", metrics_is_blacklisted(row[0].c_str(), row[1].c_str())) << row[0] << " " << row[1];
}

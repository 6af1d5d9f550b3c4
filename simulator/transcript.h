// transcript.h - what a simulator has received since its start, in order of arrival.
// Record has the members time and wrong (texts; wrong is empty when nothing is wrong); NAME is its member with the name
// by which records are counted and found.
// Threads: any.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

template <typename Record, std::string Record::*NAME> class Transcript
{
  public:
    void add(Record record)
    {
        std::lock_guard<std::mutex> guard(lock_);
        const std::string &name = record.*NAME;
        counts_[""]++;
        if (!name.empty())
            counts_[name]++;
        records_.push_back(std::move(record));
        changed_.notify_all();
    }

    // Records of that name since the start, those taken out included; "": all records.
    int count(const std::string &name)
    {
        std::lock_guard<std::mutex> guard(lock_);
        return counts_[name];
    }

    // Waits until count(name) is at least wanted. False after timeout_ms.
    bool wait_for(const std::string &name, int wanted, int timeout_ms)
    {
        std::unique_lock<std::mutex> guard(lock_);
        return changed_.wait_for(guard, std::chrono::milliseconds(timeout_ms), [&] { return counts_[name] >= wanted; });
    }

    // The index-th record of that name ("": of all), from 0; the last one for -1. An empty record when there is none.
    Record at(const std::string &name, int index)
    {
        std::lock_guard<std::mutex> guard(lock_);
        const Record *found = nullptr;
        int seen = 0;
        for (const Record &record : records_) {
            if (!name.empty() && record.*NAME != name)
                continue;
            if (index == -1 || seen == index)
                found = &record;
            seen++;
        }
        return found ? *found : Record();
    }

    std::vector<Record> all()
    {
        std::lock_guard<std::mutex> guard(lock_);
        return records_;
    }

    // Moves the records out, so that a run of many hours does not keep them all; the counts go on.
    std::vector<Record> take()
    {
        std::lock_guard<std::mutex> guard(lock_);
        return std::exchange(records_, {});
    }

    // Everything wrong in the records, one line each; "" when nothing is.
    std::string wrong()
    {
        std::lock_guard<std::mutex> guard(lock_);
        std::string lines;
        for (const Record &record : records_) {
            if (!record.wrong.empty())
                lines += record.time + " '" + record.*NAME + "': " + record.wrong + "\n";
        }
        return lines;
    }

  private:
    std::mutex lock_; // guards the members below
    std::condition_variable changed_;
    std::vector<Record> records_;
    std::map<std::string, int> counts_;
};

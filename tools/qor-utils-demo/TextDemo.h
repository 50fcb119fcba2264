// The text part of the demo: strict UTF-8 validation and repair of built-in
// samples (or of files), on a thread of its own, and a replacement table
// applied both ways by a job on the scheduler.
//
//   std::vector<demo::TextInput> inputs = demo::builtInSamples();
//   demo::TextChecker checker(timeline, inputs, true);
//   Thread thread("TextChecker", &checker);
//   thread.start(); ... thread.join();
//   checker.results();                               // read after join()
//
// Threads: TextChecker::run() runs on the thread it is given to; results()
// may be read once that thread has been joined. ReplacementJob::execute()
// runs on the scheduler's thread; done() and runs() may be used from any
// thread, replacementsMade() once done() is set.
#ifndef QOR_UTILS_DEMO_TEXTDEMO_H
#define QOR_UTILS_DEMO_TEXTDEMO_H

#include "Support.h"

#include "qor/common/system/Thread.h"
#include "qor/nav/sdk/utils/synchronization/Function.h"
#include "qor/nav/sdk/utils/timeline/Timeline.h"

#include <atomic>
#include <cstddef>
#include <string>
#include <vector>

namespace demo {

// A text to check: where it came from and its bytes.
struct TextInput
{
    std::string name;
    std::string bytes;
};

// Short texts with the faults that repair handles: CESU-8 surrogate pairs,
// broken and out-of-range bytes, control characters, a sequence cut short.
std::vector<TextInput> builtInSamples();

// Reads each file of `paths` whole into `inputs`. False, with `problem` set,
// at the first file that cannot be read.
bool readInputFiles(const std::vector<std::string>& paths, std::vector<TextInput>& inputs, std::string& problem);

// The outcome for one input.
struct ValidationResult
{
    std::string name;
    bool strict = false;            // the input as it was
    bool strictAfterRepair = false; // what makeStrictUtf8Conform() made of it
    bool changed = false;           // the repair changed the bytes
    std::size_t bytesBefore = 0;
    std::size_t bytesAfter = 0;
};

// Validates every input and repairs those that are not strict UTF-8 (and the
// strict ones too, which drops their control characters), printing one line
// per input, with the texts when `showTexts` is set.
class TextChecker : public qor::common::system::Runnable
{
public:
    TextChecker(qor::nav::sdk::utils::timeline::Timeline& timeline, std::vector<TextInput> inputs, bool showTexts);
    void run() override;
    const std::vector<ValidationResult>& results() const { return m_Results; }

private:
    qor::nav::sdk::utils::timeline::Timeline& m_Timeline;
    std::vector<TextInput> m_Inputs;
    bool m_ShowTexts;
    std::vector<ValidationResult> m_Results;
};

// Sets a replacement table for the replacement language and applies it to a
// street name in one pass (replaceCharacters, with the replacements
// recorded) and chained (applyCharacterReplacements), printing both.
class ReplacementJob : public qor::nav::sdk::utils::synchronization::Function
{
public:
    explicit ReplacementJob(qor::nav::sdk::utils::timeline::Timeline& timeline) : m_Timeline(timeline) {}
    void execute() override;
    Completion& done() { return m_Done; }
    int runs() const { return m_Runs.load(); }
    std::size_t replacementsMade() const { return m_ReplacementsMade; }

private:
    qor::nav::sdk::utils::timeline::Timeline& m_Timeline;
    std::atomic<int> m_Runs{0};
    std::size_t m_ReplacementsMade = 0;
    Completion m_Done;
};

} // namespace demo

#endif

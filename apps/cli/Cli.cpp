#include "Cli.h"

#include <cstdio>
#include <iostream>

#include "Commands.h"
#include "Options.h"
#include "Terminal.h"
#include "checks/CheckTypes.h"
#include "session/RunError.h"

namespace vellum::cli {
namespace {

const Command kCommands[] = {
    {"list", "list [--json] [--include-images]",
     "Lists the memory cards and external drives (disk images too with --include-images).", runList,
     "  --json            one JSON array instead of the table\n"
     "  --include-images  also list loop devices (disk images attached with losetup)\n"},
    {"quick", "quick TARGET [--json] [--then full|wipe|format [ITS OPTIONS]]",
     "Quick Check: is the capacity real? Keeps your files (about a minute). With --then, "
     "erases a disk proven fake, even one claiming over 4 TB.",
     runQuick,
     "  --json            print the result as one JSON object\n"
     "  --then ACTION     full, wipe or format: run it afterwards, only when the capacity\n"
     "                    was proven fake (lifts the 4 TB limit); the options after it\n"
     "                    (--confirm, --backup, --method, --fs, --name) are the action's\n"},
    {"full", "full TARGET [--confirm WORD] [--backup FILE [--force]] [--json]",
     "Full Test: writes and verifies every block and rates the speed. Erases everything.", runFull,
     "  --confirm WORD     the disk's name (sdb), or \"erase\" for demo cards and image\n"
     "                     files; asked for on a terminal when missing\n"
     "  --backup FILE      first save a byte-for-byte image of the card to FILE (a new\n"
     "                     file, not on the card); nothing is erased if it fails\n"
     "  --force            let --backup replace an existing FILE\n"
     "  --json             print the result as one JSON object\n"},
    {"health", "health TARGET [--json]",
     "Health Scan: reads every block and maps unreadable and slow areas. Read-only.", runHealth,
     "  --json            print the result as one JSON object (read-only; no guard)\n"},
    {"wipe",
     "wipe TARGET [--method zeros|random] [--confirm WORD] [--backup FILE [--force]] [--json]",
     "Wipe: overwrites every block, reads it all back and proves no file can be recovered. "
     "Erases everything.",
     runWipe,
     "  --method zeros|random  what is written (default zeros); random also exposes a\n"
     "                         card that wraps its writes\n"
     "  --confirm WORD         the disk's name (sdb), or \"erase\" for demo cards and\n"
     "                         image files; asked for on a terminal when missing\n"
     "  --backup FILE          first save an image of the card to FILE (a new file)\n"
     "  --force                let --backup replace an existing FILE\n"
     "  --json                 print the result as one JSON object\n"},
    {"restore", "restore [TARGET]",
     "Puts back the data of a Quick Check that was interrupted (the card pulled out, the "
     "computer off), from its undo journal.",
     runRestore,
     "  Without TARGET, every unfinished journal is tried on the cards present now; a\n"
     "  journal whose card is absent is kept (exit status 1). Only places that still hold\n"
     "  that check's test data are written: anything written there since stays.\n"},
    {"image", "image SOURCE DEST [--force]",
     "Saves a byte-for-byte backup image of SOURCE to the file DEST (a new file; --force "
     "replaces an existing one).",
     runImage,
     "  DEST must be a new regular file, not under /dev and not on SOURCE.\n"
     "  --force           replace an existing DEST (only once the new image is complete)\n"
     "  Unreadable sectors are saved as zeros and counted (exit status 1).\n"},
    {"format", "format DISK [--fs exfat|fat32] [--name NAME] [--confirm DISK] [--json]",
     "Gives DISK (such as sdb) a fresh FAT32 or exFAT file system. Erases everything.", runFormat,
     "  --fs exfat|fat32  the file system (default: FAT32 up to 32 GB, exFAT above)\n"
     "  --name NAME       the volume name, cleaned up for cameras (default UNTITLED)\n"
     "  --confirm DISK    the disk's name; asked for on a terminal when missing\n"
     "  --json            print {\"fileSystem\":...,\"name\":...}\n"},
    {"carve",
     "carve SOURCE --out DIR [--catalog] [--categories photos,video,...] [--stride N] "
     "[--chunk BYTES]",
     "Looks for photos, videos, music and documents in SOURCE and saves them to DIR. Read-only.",
     runCarve,
     "  --out DIR             where the files and vellum-report.json go (not on SOURCE)\n"
     "  --catalog             write only the report; export saves the files later\n"
     "  --categories LIST     photos,rawPhotos,video,audio,documents,archives (default all)\n"
     "  --stride N            step between candidate offsets in bytes (default 512)\n"
     "  --chunk BYTES         read size, a multiple of --stride (default 16 MiB)\n"},
    {"export", "export REPORT.json SOURCE --out DIR",
     "Saves the files listed by carve --catalog, skipping any that changed since the scan.",
     runExport,
     "  --out DIR         where the files go; existing files are never overwritten\n"
     "  Files whose start changed since the scan are skipped.\n"},
};

void printUsage(std::FILE* out) {
  std::fprintf(out,
               "Usage: vellum-check COMMAND [ARGUMENTS]\n"
               "\n"
               "Tells whether a memory card or USB drive is genuine, fast and healthy.\n"
               "\n"
               "Commands:\n");
  for (const Command& command : kCommands) {
    std::fprintf(out, "  vellum-check %.*s\n      %.*s\n", static_cast<int>(command.usage.size()),
                 command.usage.data(), static_cast<int>(command.summary.size()),
                 command.summary.data());
  }
  std::fprintf(out,
               "\n"
               "TARGET is a disk (sdb or /dev/sdb, see vellum-check list), demo:genuine,\n"
               "demo:fake, demo:failing (cards simulated in memory) or the path of a disk\n"
               "image file. Erasing a disk asks you to type its name (or --confirm sdb).\n"
               "\n"
               "Exit status: 0 good verdict, 1 bad verdict, 2 usage error, 3 could not run,\n"
               "130 stopped.\n"
               "\n"
               "Examples:\n"
               "  vellum-check list\n"
               "  vellum-check quick sdb\n"
               "  vellum-check full sdb --backup card-backup.img --confirm sdb\n"
               "  vellum-check quick sdb --then wipe --confirm sdb\n"
               "  vellum-check quick demo:fake\n"
               "  vellum-check restore\n"
               "  vellum-check full card.img --confirm erase --json\n"
               "  vellum-check image demo:genuine backup.img\n");
}

}  // namespace

int run(const std::vector<std::string>& arguments) {
  if (arguments.empty()) {
    printUsage(stderr);
    return kUsage;
  }
  const std::string& name = arguments.front();
  if (name == "--help" || name == "-h" || name == "help") {
    printUsage(stdout);
    return kGoodVerdict;
  }
  if (name == "--version") {
    std::printf("vellum-check %s\n", VELLUM_VERSION);
    return kGoodVerdict;
  }
  for (const Command& command : kCommands) {
    if (command.name != name) continue;
    const std::vector<std::string> words(arguments.begin() + 1, arguments.end());
    for (const std::string& word : words) {
      if (word == "--help" || word == "-h") {
        std::printf("Usage: vellum-check %.*s\n%.*s\n\n%.*s",
                    static_cast<int>(command.usage.size()), command.usage.data(),
                    static_cast<int>(command.summary.size()), command.summary.data(),
                    static_cast<int>(command.options.size()), command.options.data());
        return kGoodVerdict;
      }
    }
    try {
      return command.run(words);
    } catch (const UsageError& error) {
      std::fprintf(stderr, "vellum-check %s: %s\nUsage: vellum-check %.*s\n", name.c_str(),
                   error.what(), static_cast<int>(command.usage.size()), command.usage.data());
      return kUsage;
    } catch (const RunError& error) {
      if (error.is<RunError::Cancelled>()) {
        std::fprintf(stderr, "%s\n%s\n", CheckError::cancelled().what(), error.what());
        return kCancelled;
      }
      if (error.is<RunError::NotConfirmed>()) return kUsage;  // the prompt said why
      if (error.is<RunError::NeedsQuickCheck>() && command.name != "quick") {
        // The form that lifts the limit on the command line.
        const std::string& disk = error.as<RunError::NeedsQuickCheck>()->disk;
        std::fprintf(stderr,
                     "vellum-check: %s On the command line: vellum-check quick %s --then %s "
                     "--confirm %s.\n",
                     error.what(), disk.c_str(), name.c_str(), disk.c_str());
        return kCouldNotRun;
      }
      std::fprintf(stderr, "vellum-check: %s\n", error.what());
      return kCouldNotRun;
    } catch (const CheckError& error) {
      if (error.is<CheckError::Cancelled>()) {
        std::fprintf(stderr, "%s\n", error.what());
        return kCancelled;
      }
      std::fprintf(stderr, "vellum-check: %s\n", error.what());
      return kCouldNotRun;
    } catch (const Error& error) {
      std::fprintf(stderr, "vellum-check: %s\n", error.what());
      return kCouldNotRun;
    } catch (const std::bad_alloc&) {
      std::fprintf(stderr, "vellum-check: not enough memory.\n");
      return kCouldNotRun;
    } catch (const std::exception& error) {
      std::fprintf(stderr,
                   "vellum-check %s: stopped by an unexpected error: %s. Nothing more was "
                   "written. Please report this.\n",
                   name.c_str(), error.what());
      return kCouldNotRun;
    }
  }
  std::fprintf(stderr, "vellum-check: unknown command %s. Run vellum-check --help for usage.\n",
               name.c_str());
  return kUsage;
}

}  // namespace vellum::cli

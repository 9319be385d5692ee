// The texts of the lines that are neither requests nor events. What is not here loses its text in a
// redacted copy: a new log text of the library that says something worth sharing is added here.
#include "operations.h"

namespace tnwlog {

const std::vector<TextPattern>& OtherTexts() {
  static const std::vector<TextPattern> texts = [] {
    std::vector<TextPattern> patterns;
    for (const char* text : {
             // Requests and connections.
             "id <m:id>, opcode <d:opcode>, len <d>, errno <d:errno>",
             "Could not send messages id <m>, opcode <d>, len <d>. Requesting client to "
             "reinitialize.",
             "Could not receive response header for message id <m>, opcode <d>, len <d>. "
             "Requesting "
             "client to reinitialize.",
             "Could not receive response payload. Requesting client to reinitialize.",
             "Could not Connect to Tarn.",
             "Connected to tarn server",
             "Socket Connected...",
             "Processing connect request for user <N>.",
             "Attempt to connect to socket <P>",
             "Failed to connect to socket <P>",
             "Socket send connection hungup",
             "Socket recv connection hungup",
             "Error on send OX_POLL",
             "Error on recv OX_POLL",
             "Error on Send OX_POLL",
             "Error on Recv OX_POLL",
             "Failed to send over socket",
             "Failed to recv over socket",
             "Failed to create socket",
             "tarn is unauthorized",
             "Updating auth token",
             "Setting http proxy",
             "get_version failed",
             "shutdown failed",
             // Starting and stopping.
             "Start tarnd with cmd: <P> --cfs <P> --user <N> --cache \"<P>\" --addr <P> --confaddr "
             "<P> --tn-devid <N> --da-devid <N> --access-token <S> --logfile \"<P>\" --vfs <S>",
             "Client log initialized at <P>",
             "Tarn device id: <N> is set for domain: <N> and user: <N> at path: <P>",
             "Tarn device id: <N> already exist for domain: <N> and user: <N> at path: <P>",
             "real DA PID: <d>, file DA PID: <d>",
             "tarnd is still running at <P>. Sleeping for <d> secs.",
             "Waiting on event name: <P>",
             "Waited for <f> seconds",
             "Signal event name <P>",
             "Failed to create named event <P>",
             "Failed to signal event <P>",
             "Failed to wait for tarnd ready state",
             "Successully waited for tarnd pid <d> for user <N>",
             "tarnd init <d> of <d> failed. Retrying after <d> seconds.",
             "<d> tarnd init attempts exhausted. Requesting for classic DA fallback",
             "TFI: force fallback. Notifying event name <P>",
             "Stopping tarnd for user <N>",
             "tarnd shutdown failed for <N>",
             "tarnd shutdown success for <N>",
             "tarnd for <N>, stopped for drive id <N>, current drive handle count <d>",
             "After deinit, drive handle count <d> for user <N>",
             "Could not terminate tarnd",
             "Failed to start Tarn",
             "Failed to start tarnd",
             "Failed to create dir <P>",
             "File descriptor table <d>:<d> files allocated",
             // Files.
             "Get file info for <P>",
             "Server returned error for open msg.",
             "Failed to send open message.",
             "Failed to send directory enumeration message.",
             "Failed to send directory enumeration message for path <P>.",
             "Failed to read from the file <P>",
             "Failed to write to the file <P>",
             "Failed to get filesize for <N>:<N>",
             "Failed to set filesize for <N>:<N>",
             "Failed to cache regions off:<d>, len:<d>, trunc: <d>",
             "Failed to dirty off:len <d>:<d>",
             "Failed to truncate to new size: <d>",
             "Failed to get path from handle.",
             "Uncached read(<d>, <d>, <d> : <N>)",
             "cache_region(<d>, <d>, <d> : <N>) failed",
             "dirty_region(<d>, <d>, <d> : <N>) failed",
             "ftruncate(<d>, <d>: <N>) failed",
             "ox_open: Cannot open file <P>",
             "Could not find handle with address 0x<h>",
             "Too many open files",
             "Allocated fd <d>, state <d>, free count <d>, cffl <h>",
             "putting fd <d>, state <d>, free count <d>",
             "Checking bits for off:<d>, len:<d> in <h>",
             "bits are set for off:<d>, len:<d> in <h>",
             "bits not set for off:<d>, len:<d> in <h>",
             "Setting bits for off:<d>, len:<d> in <h>",
             "Clearing bits for off:<d>, len:<d> in <h>",
             "bitmap[sbyte] = <h>, bitmap[ebyte] = <h>",
             "sbit <h>, ebit <h>, sbyte <h>, ebyte <h>, ssbit <h>, eebit <h>, sval <h>, eval <h>, "
             "bitmap[sbyte] = <h>, bitmap[ebyte] = <h>",
             "Unidentified unix error <d>",
             "Unidentified windows error <d>",
             // The thread pool and the locks.
             "Thread pool [<N>] created.",
             "Thread pool [<N>] pausing.",
             "Thread pool [<N>] resuming.",
             "Thread pool [<N>] STAT SLOT <d> alloted.",
             "Thread pool [<N>] STAT SLOT <d> freed.",
             "Thread pool [<N>] PRIV SLOT <d> alloted.",
             "Thread pool [<N>] PRIV SLOT <d> freed.",
             "Threadpool [<N>] is paused...",
             "[<N>] Job queue is empty, waiting for jobs...",
             "[<N>] Creating new Thread: cur_count=<d>",
             "[<N>] Exiting thread cur_count=<d>, idle_count=<d>",
             "[<N>]:Thread exiting... All jobs drained.",
             "Thread exiting...",
             "Draining thread pool <N>",
             "Aborting thread pool <N>",
             "Destroying thread pool <N>",
             "Lock acqusition <h> took <d> usec",
             "Lock held <h> for <d> usec",
             "oxley profile level set to <d>",
         }) {
      patterns.emplace_back(text);
    }
    return patterns;
  }();
  return texts;
}

}  // namespace tnwlog

#include "options.h"

namespace tarnd {

std::string help_text() {
  return R"(tarnd: the cache service of a cloud drive, for development, demos and tests

usage: tarnd --cache DIR --addr URL [options]

An option's value is the next word, unless that begins with "--": then it is
empty. Words that follow a value belong to it. A quote groups words; a backslash
is never an escape.

The cloud and the user:
  --addr URL             the cloud: file:///Z:/a%20folder (percent-encoded), or
                         a folder of a WebDAV server: https://host:port/folder/;
                         with "fault+" before it the same cloud as one that is
                         far away and fails
  --cfs URL              the cloud's own name: https://domain
  --user NAME            the user
  --access-token TOKEN   the user's token; "expired" is one that the cloud does
                         not accept. A web server gets it as a bearer's, and
                         basic:USER:PASSWORD as these two
  --confaddr URL         the configuration service: kept, not used
  --proxy-server TEXT, --proxy-user TEXT, --proxy-password TEXT
                         the HTTP proxy, HOST:PORT, of a web server's cloud
  --ca FILE              the certificate of an own authority, PEM or DER: then
                         only servers that it vouches for are talked to
  --connections NUMBER   requests to a web server at a time: 1 to 64 (8)
  --transfers NUMBER     fetches at a time, and uploads at a time: 1 to 64 (8)
  --names-fresh MS       for how long listings and looks at names may show what
                         the cloud said before: up to 600000; 0: the cloud is
                         asked each time (0 for a directory, 2000 for a web
                         server)
  --write-back-wait MS   how long a close waits for its upload before it answers
                         while that goes on; until then it tells of a failure
                         (2000)
This machine:
  --cache DIR            the cache directory: cache files, database and the pid
                         file "tarnd_pid"
  --cache-size BYTES     cached files that are closed and saved go, those used
                         longest ago first, when the cache takes more (0: a
                         tenth of the disk's free space)
  --keep-free BYTES      with less free space on the disk nothing is fetched: 28
                         (268435456)
  --shutdown-wait MS     how long uploads may go on after SHUTDOWN; those that
                         are left go on after the next start (5000)
  --sockdir DIR          the socket's directory; the cache directory when empty
  --wgid ID              the workgroup: a directory of this name below the
                         socket's directory
  --uid NUMBER           the socket is "NUMBER.sock", and "tnvfs.sock" when 0 or
                         left out
  --logfile FILE         the log; without it, messages go to the console
  --tn-devid ID, --da-devid ID
                         the library's and the drive application's device, as
                         GET_VERSION tells
  --vfs                  serve the drive (always done; told in GET_VERSION)
  --probe URL            tries out what a WebDAV server can, shows it and ends.
                         It takes a folder that may be written to;
                         --access-token, --proxy-... and --ca count
  --help, --version

Environment:
  TARND_CACHE_SIZE, TARND_KEEP_FREE, TARND_TRANSFERS, TARND_NAMES_FRESH,
  TARND_WRITE_BACK_WAIT, TARND_SHUTDOWN_WAIT, TARND_CONNECTIONS, TARND_CA
                         as the options of these names, which go before them
For development:
  TARND_REGION_SHIFT=N   regions of 2^N bytes, 0 to 62 (20)
  TARND_UTXID=N          the first answer's transaction id, counted up with each
                         answer; 0: none (0)
  TARND_LATENCY_MS=N     waits before each answer, up to 60000 (0)
  TARND_LATENCY_OPS=LIST only before the answers of these operations:
                         "open,cache_region"
  TARND_COUNTS=FILE      writes the counts there at the end: "name value", one a
                         line
  TARND_FAULTS=SCRIPT    what the fault cloud does wrong, as "latency all 50;
                         lost put 0.1", or "@FILE", which may change while the
                         service runs. All rules are in
                         service/cloud/fault/fault_script.h
  TARND_DEBUG=N          debug messages up to this verbosity, 0 to 5

Ends with 0 after a SHUTDOWN request or Ctrl-C; 1 when it cannot start; 2 for a
wrong command line or environment; 3 when changes are not in the cloud yet (they
stay in the cache directory and go up after the next start). At the end it
prints its counts.

Conventions (more in service/README.md):
  access mode    1 read, 2 and 4 write, 0 attributes only
  share mode     1 read, 2 write, 4 delete; a conflict is 13. Opens for
                 attributes only, and opens after their CLEANUP, take no part in
                 it
  flags          0x1 asks for a folder (20 when it is a file), 0x40 for a file
                 (1 when it is a folder); a create with 0x1 makes a folder. What
                 is to be written must not be read-only (1), and a folder is not
                 emptied (1)
  disposition    1 create new (17), 2 create always, 3 open (2), 4 open always,
                 5 truncate (2); 2 and 4 answer 183 for what was there
  answer flags   4 whenever maps are sent: for every file; 2 when the cached
                 file is newer than the cloud's
  maps           have room for the file to double and 512 regions more; regions
                 past the cloud's content are marked cached from the start
  CACHE_REGION   7: a range that no file can have (past 2^31 regions or 2^63
                 bytes); 25: the open has no maps any more, so the local file is
                 the truth. A range past the end is answered with 0 and as
                 cached, so that the next read there sends no message
  clear marks    for an open whose maps speak of a content that was cut to
                 nothing by another open
  DIRTY_REGION   caches the regions first; 28: past the largest file
  FTRUNCATE      28: past the largest file. A size that the local file got
                 without it counts, too
  CLOSE          8 in the flags seals the change, which then goes up. So does a
                 last close of a changed file. What a client wrote that ended
                 without it goes up under the conflict name. 9: no such open. A
                 content that the cloud refuses for good refuses the close
  CLEANUP        the open takes no part in sharing any more and loses its range
                 locks
  RENAME         onto an existing name 17 (its own in another case: 0), into
                 itself 22, of a folder with files in use below 16
  DELETE         of a folder with entries 41, of what is read-only 1
  both           of what is not there 2, open without sharing deletion 13, of
                 the share itself 1
  CANDELETE      0 and whether DELETE would do it; 2 for what is not there
  BRL            a conflict is 13, at once; 22: an unlock of what is not locked
                 so, or a range past 2^64; 9: no such open, or it had its
                 CLEANUP
  token          while it is "expired", every request about files is answered as
                 unauthorised (1)
  errors         22 malformed, or a name that Windows does not take or is over
                 244 bytes; 40 unknown operation, 1 access denied or a path out
                 of the share
)";
}

}  // namespace tarnd

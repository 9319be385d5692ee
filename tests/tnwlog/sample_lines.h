/* Lines as the library writes them, of a user Jane whose drive opens a file and reads it. */
#ifndef TESTS_TNWLOG_SAMPLE_LINES_H
#define TESTS_TNWLOG_SAMPLE_LINES_H

#include <string>

namespace sample {

inline const std::string CLOCK = R"({"asctime":"2026-11-21 14:21:52.979", "level":"DEBUG", )";
inline const std::string CONNECTION =
    R"("vfs_server_handle":"0000000000cd5650", "vfs_socket_fd":188, "remote_host":"JANES-PC", )"
    R"("vfs_user":"jane", "vfs_share_path":"/", "vfs_peer_handle":"0000000000000002", )"
    R"("vfs_peer_thread":"0x244", "vfs_da_device_id":"6f1f2f1e-4b7a-4d0b-9a5c-7a3c5d2e8b10", )";
inline const std::string ID = "4cc25111-faef-4dc1-9850-55d18402b081";
inline const std::string FSO =
    R"("fso":{"id":"9440395a-1a09-8608-8047-12a0f011ab12", )"
    R"("pfid":"422bb446-cd29-897a-8564-e780bb665a8b", )"
    R"("eid":"deb63f46-54b2-84cd-b022-9101556b1d7c", )"
    R"("peid": "1dfcb4ca-9609-8e4d-8c8b-ce3cdf08764e", "fsostate":0, "pfsostate":0, "isdir":0, )"
    R"("fsoseqno":1})";

/* An event line of a request up to its arguments. */
inline std::string event(const std::string& name, const std::string& id, int error = 0,
                         const std::string& connection = CONNECTION) {
  return CLOCK + R"("filename":"tnv_log_win.cpp", "line":245, )" + connection +
         R"("vfs_msg_id":")" + id +
         R"(", "vfs_drive_id":"c0b7a1d4-52f3-4a66-8a43-0f6f0e9d7c21", "vfs_proc_name":"WINWORD", )"
         R"("vfs_response_time":7484, "utxid":24, "vfs_event_name":"TNV_OP_)" +
         name + R"(", "vfs_errno":)" + std::to_string(error) + R"(, "vfs_args":)";
}

inline std::string open_event(const std::string& path, const std::string& id = ID, int error = 0) {
  return event("WIN_OPEN", id, error) + R"({"fd":0, "file_fd":"00000000000020ec", "filename":")" +
         path +
         R"(", "region_shift":20, "rmap_size":66, "dmap_size":66, "accmode":"0x1", "shmode":"0x1", )"
         R"("cdisp":"0x3", "flags":"0x40", "tnflags":"0x4"}, )" +
         FSO + "}";
}

inline std::string open_request(const std::string& path) {
  return "[2026-11-21 14:21:52.971 2026] DEBU-05 tnv_log_win.:112 Message: open(clfd 0, fname " +
         path +
         ", accmode 0x1, shmode 0x1, cdisp = 0x3, flags 0x40, len 17, "
         "drive_id c0b7a1d4-52f3-4a66-8a43-0f6f0e9d7c21, proc_name WINWORD)";
}

inline const std::string DUMP_BEGIN = "00000000000000000000 --- Begin --- 00000000000000000000";
inline const std::string DUMP_ROW =
    "02000000 09020000 1151ffffffc24c ffffffeffffffffaffffffc14d ffffff985055ffffffd1 "
    "ffffff8402ffffffb0ffffff81 ffffffd4ffffffa1ffffffb7ffffffc0 fffffff352664a";
inline const std::string DUMP_TEXT =
    "   C   o      | !  W I N W  O R D                            ";
inline const std::string DUMP_END = "00000000000000000000 --- End --- 00000000000000000000";
inline const std::string HEADER = "[2026-11-21 14:21:52.979 2026] DEBU-05  tnv_log.cpp:23 id " +
                                  ID + ", opcode 2, len 256, errno 0";

inline const std::string CACHE_REGION =
    event("CACHE_REGION", "b47e5960-87bb-42b3-9473-e587b00bbfbe") +
    R"({"req_coff":0, "req_clen":1048576, "resp_coff":0, "resp_clen":1048576, "resp_fsz":2, )"
    R"("id":"9440395a-1a09-8608-8047-12a0f011ab12", "open_msgid":")" +
    ID + R"(", "filename":"[unknown]"}, )" + FSO + "}";

inline const std::string READ =
    CLOCK + R"("filename":"tnw_log.cpp", "line":60, )" + CONNECTION +
    R"("vfs_response_time":1250, "vfs_event_name":"TNV_OP_WIN_READ", )"
    R"("retval":18446744073709551615, "vfs_errno":5, )" +
    FSO +
    R"(, "vfs_args":{"fd":0, "id":"9440395a-1a09-8608-8047-12a0f011ab12", )"
    R"("eid":"deb63f46-54b2-84cd-b022-9101556b1d7c", "offset":0, "size":4096}})";

inline std::string client(const std::string& text) {
  return R"({"asctime":"2026-11-21 14:21:52.590", "level":"INFO", "filename":"tnw_init.cpp", )"
         R"("line":111, "message":")" +
         text + R"("})";
}

}  // namespace sample

#endif

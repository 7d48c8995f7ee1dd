// The platform's diagnostics library: modem log packets for a registered client (DCI, the
// diagnostic consumer interface).
#pragma once

#include <cstdint>

extern "C" {

// What the functions below return on success.
enum { DIAG_DCI_NO_ERROR = 1001 };

// A set of peripherals, and the bits in it.
typedef uint16_t diag_dci_peripherals;
enum : uint16_t {
    DIAG_CON_APPS = 0x1,  // applications processor
    DIAG_CON_MPSS = 0x2,  // modem
    DIAG_CON_ADSP = 0x4,  // audio DSP
    DIAG_CON_WCN = 0x8,   // wireless connectivity
};

// What the value of a status notification has beside the bits of its peripherals.
enum : uint32_t {
    DIAG_STATUS_OPEN = 0x10000,
    DIAG_STATUS_CLOSED = 0x20000,
};

// The packet's bytes are the library's and good until the callback returns.
typedef void (*diag_dci_stream_callback)(unsigned char* data, int length);

// Connects to the diagnostics service; `context` is null. Returns non-zero on success. After either
// result Diag_LSM_DeInit releases what was taken.
int Diag_LSM_Init(unsigned char* context);
int Diag_LSM_DeInit(void);

// Registers a client for the peripherals of processor `proc` (0: the local one) and stores its id.
// `signo` points to the number (int) of the signal that tells of status changes: its integer value
// is the status.
int diag_register_dci_client(int* client_id, diag_dci_peripherals* list, int proc, void* signo);

// Asks for packets of `count` log codes (set 1) or for no more of them (set 0).
int diag_log_stream_config(int client_id, int set, uint16_t* codes, int count);

// Names the callbacks; null: none. They are called on a thread of the library, one at a time.
int diag_register_dci_stream_proc(int client_id, diag_dci_stream_callback log_callback,
                                  diag_dci_stream_callback event_callback);

// Stores the peripherals of processor `proc` that support DCI. Any thread.
int diag_get_dci_support_list_proc(int proc, diag_dci_peripherals* list);

// Ends the registration. Returns once no callback runs any more, so the caller must not hold one
// up; no callback is made afterwards.
int diag_release_dci_client(int* client_id);
}

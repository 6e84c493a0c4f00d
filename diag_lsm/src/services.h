// Services that this build leaves out: masks, log, event and message services, and the DCI client.
// The reader calls them; they do nothing.
#pragma once

inline namespace tavrik_diag_lsm {

int Diag_LSM_Log_Init(void);
int Diag_LSM_Msg_Init(void);
int Diag_LSM_Event_Init(void);
int Diag_LSM_Msg_DeInit(void);

void diag_update_msg_masks(unsigned char* payload, int length);
void diag_update_log_masks(unsigned char* payload);
void diag_update_event_masks(unsigned char* payload);
void diag_update_dci_log_masks(unsigned char* payload, int length);
void diag_update_dci_event_masks(unsigned char* payload, int length);
void diag_process_dci_data(unsigned char* payload, int length);

}  // namespace tavrik_diag_lsm

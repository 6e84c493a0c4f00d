#include "diag_lsm/src/services.h"

inline namespace tavrik_diag_lsm {

int Diag_LSM_Log_Init(void) { return 1; }
int Diag_LSM_Msg_Init(void) { return 1; }
int Diag_LSM_Event_Init(void) { return 1; }
int Diag_LSM_Msg_DeInit(void) { return 1; }

void diag_update_msg_masks(unsigned char*, int) {}
void diag_update_log_masks(unsigned char*) {}
void diag_update_event_masks(unsigned char*) {}
void diag_update_dci_log_masks(unsigned char*, int) {}
void diag_update_dci_event_masks(unsigned char*, int) {}
// No DCI client can be registered, so there is nobody to hand records to.
void diag_process_dci_data(unsigned char*, int) {}

}  // namespace tavrik_diag_lsm

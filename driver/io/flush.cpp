#include "frame/status_translation.h"
#include "io/io.h"
#include "provider/provider_calls.h"

// No data is held here and no resource is taken: a flush runs beside every other request on the file.
NTSTATUS NtFsdCommonFlush(PIRP_CONTEXT IrpContext) {
    const auto Instance = static_cast<PINSTANCE_CONTEXT>(IrpContext->FileObject->FsContext2);
    const RVSTATUS Status = RVFsdFlushFile(&IrpContext->SecurityContext, Instance->FileHandle);
    IrpContext->Information = 0;
    return NtFsdCompleteRequest(IrpContext, IrpContext->Irp, NtFsdTranslateResult(Status));
}

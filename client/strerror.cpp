#include "cloud_svr_client.h"

const char* cloud_svr_client_strerror(int code) {
    switch (code) {
        case CLOUD_SVR_OK:
            return "success";
        case CLOUD_SVR_E_GENERAL:
            return "general failure";
        case CLOUD_SVR_E_NO_CONNECTION:
            return "no connection to the cloud";
        case CLOUD_SVR_E_LISTEN:
            return "the local socket could not be set up";
        case CLOUD_SVR_E_LOCAL_SEND:
            return "the daemon cannot be reached";
        case CLOUD_SVR_E_LOCAL_CLOSED:
            return "the daemon closed the connection";
        case CLOUD_SVR_E_REFUSED:
            return "the daemon has no room for another client";
        case CLOUD_SVR_E_NOT_FOUND:
            return "message id not among the awaited answers";
        case CLOUD_SVR_E_PENDING:
            return "answer still pending";
        case CLOUD_SVR_E_NOTHING:
            return "nothing received";
        case CLOUD_SVR_E_REGISTRATION:
            return "registration refused: there is another agent or a cloud kit";
        case CLOUD_SVR_E_REJECTED:
            return "the cloud rejected the device";
        case CLOUD_SVR_E_STOPPED:
            return "the cloud ordered the device to stop connecting";
        case CLOUD_SVR_E_RESOURCE:
            return "out of memory or another resource";
        case CLOUD_SVR_E_FORMAT:
            return "not JSON, a required item missing, or not a message of this protocol";
        case CLOUD_SVR_E_INCOMPLETE:
            return "a message could not be read in full";
        case CLOUD_SVR_E_TOO_LONG:
            return "JSON text too long for the cloud";
        case CLOUD_SVR_E_TIMEOUT:
            return "no answer in time";
        case CLOUD_SVR_E_MESSAGE_ID:
            return "message id missing or not matching";
        case CLOUD_SVR_E_METHOD:
            return "wrong or missing \"method\"";
        case CLOUD_SVR_E_MEMBER:
            return "a required member is missing";
        case CLOUD_SVR_E_RANGE:
            return "value out of range";
        case CLOUD_SVR_E_ARGUMENT:
            return "missing or empty argument";
        default:
            return "unknown code";
    }
}

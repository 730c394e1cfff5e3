// The end of all brokers, on the program's demand.
#include "logging/Log.h"
#include "reflect/TreflectORB.h"

void prepareOrbForDeletion() {
    REFLECTORB_LOG(5, "PrepareOrbForDeletion", "prepareOrbForDeletion() called");
    TreflectORB::prepareForDeletion();
    REFLECTORB_LOG(5, "PrepareOrbForDeletion", "prepareOrbForDeletion() returns");
}

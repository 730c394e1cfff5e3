#pragma once

class TreflectORB;

namespace processobject {

/** A broker of this process can be found from now on. Makes the process object if the environment
 * asks for it. */
void brokerPublished(TreflectORB& orb);

}  // namespace processobject

#pragma once

#include <dal/Dal.h>

#include <string>

/// A contact with something in every field.
inline oryx::ContactRecord desk()
{
    oryx::ContactRecord rec;
    rec.setContactid(99);
    rec.setAddress("sip:al%20ice@192.0.2.7:5060");
    rec.setCsid(12);
    rec.setQvalue("0.5");
    rec.setExpires(1700000000);
    rec.setPermanent('t');
    rec.setCapabilities("methods=\"INVITE\"");
    rec.setContactHeader("<sip:al%20ice@192.0.2.7:5060>;q=0.5");
    rec.setCallId("a84b4c76e66710@192.0.2.7");
    rec.setType("home");
    rec.setCseq(4711);
    rec.setPathVector("<sip:edge.oryx.example;lr>");
    return rec;
}

inline const std::string kDesk =
    "contact 99 'sip:al%20ice@192.0.2.7:5060' csid=12 q='0.5' expires=1700000000 permanent='t' capabilities='methods=\"INVITE\"' header='<sip:al%20ice@192.0.2.7:5060>;q=0.5' call='a84b4c76e66710@192.0.2.7' cseq=4711 type='home' path='<sip:edge.oryx.example;lr>'\n";

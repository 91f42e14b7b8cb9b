\set n random(1, :size)
SELECT contact_set.ordering, contact_set.replace_uri, contact.address, contact.qvalue,  contact.expires, contact.capabilities, contact.contact_header,contact.call_id,contact.cseq,contact.c_type  FROM contact_set, contact WHERE (contact_set.csid = ':n' AND contact.csid = contact_set.csid);

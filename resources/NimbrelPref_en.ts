<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="en_US" sourcelanguage="en_US">
<context>
    <name>NimbrelPref</name>
    <message>
        <source>Mac OS X 10.4 Required</source>
        <translation>Mac OS X 10.4 Required</translation>
    </message>
    <message>
        <source>Mac OS X 10.4 or greater is required.</source>
        <translation>Mac OS X 10.4 or greater is required.</translation>
    </message>
    <message>
        <source>Quit</source>
        <translation>Quit</translation>
    </message>
    <message>
        <source>More Info...</source>
        <translation>More Info...</translation>
    </message>
    <message>
        <source>ResetAlertTitle</source>
        <translation>Reset Nimbrel?</translation>
    </message>
    <message>
        <source>ResetAlertMsg</source>
        <translation>Resetting removes every published calendar, subscription, remote server and Google setting from Nimbrel and clears its sync history. Your calendars are backed up first. This cannot be undone.</translation>
    </message>
    <message>
        <source>ResetAlertDefaultButton</source>
        <translation>Reset</translation>
    </message>
    <message>
        <source>ResetAlertAlternateButton</source>
        <translation>Cancel</translation>
    </message>
    <message>
        <source>DisconnectAlertTitle</source>
        <translation>Disconnect from this server?</translation>
    </message>
    <message>
        <source>DisconnectAlertMsg</source>
        <translation>You subscribe to calendars on “%@”. If you disconnect, these subscriptions are removed from this computer.</translation>
    </message>
    <message>
        <source>DisconnectAlertDefaultButton</source>
        <translation>Disconnect</translation>
    </message>
    <message>
        <source>DisconnectAlertAlternateButton</source>
        <translation>Cancel</translation>
    </message>
    <message>
        <source>DisconnectGoogleAlertTitle</source>
        <translation>Disconnect the Google account?</translation>
    </message>
    <message>
        <source>DisconnectGoogleAlertMsg</source>
        <translation>Some of your calendars are published to “%@” or subscribed from it. If you disconnect, they are no longer kept in step with Google.</translation>
    </message>
    <message>
        <source>DisconnectGoogleAlertDefaultButton</source>
        <translation>Disconnect</translation>
    </message>
    <message>
        <source>DisconnectGoogleAlertAlternateButton</source>
        <translation>Cancel</translation>
    </message>
    <message>
        <source>RestartAlertTitle</source>
        <translation>Restart recommended</translation>
    </message>
    <message>
        <source>RestartAlertMsg</source>
        <translation>Nimbrel was updated while other users are logged in to this computer. Restart the computer so that every user runs the new version.</translation>
    </message>
    <message>
        <source>RestartAlertDefaultButton</source>
        <translation>Restart</translation>
    </message>
    <message>
        <source>RestartAlertAlternateButton</source>
        <translation>Later</translation>
    </message>
    <message>
        <source>everyone can read &amp; write</source>
        <translation>everyone can read &amp; write</translation>
    </message>
    <message>
        <source>everyone can read; write password</source>
        <translation>everyone can read; write password</translation>
    </message>
    <message>
        <source>read password</source>
        <translation>read password</translation>
    </message>
    <message>
        <source>read password; write password</source>
        <translation>read password; write password</translation>
    </message>
    <message>
        <source>everyone can read</source>
        <translation>everyone can read</translation>
    </message>
    <message>
        <source>password required</source>
        <translation>password required</translation>
    </message>
    <message>
        <source>read</source>
        <translation>read</translation>
    </message>
    <message>
        <source>read &amp; write</source>
        <translation>read &amp; write</translation>
    </message>
    <message>
        <source>, no reminders</source>
        <translation>, no reminders</translation>
    </message>
    <message>
        <source>, no to dos</source>
        <translation>, no to dos</translation>
    </message>
    <message>
        <source>, no attachments</source>
        <translation>, no attachments</translation>
    </message>
    <message>
        <source>incompatible version</source>
        <translation>incompatible version</translation>
    </message>
    <message>
        <source>unable to connect</source>
        <translation>unable to connect</translation>
    </message>
    <message>
        <source>online</source>
        <translation>online</translation>
    </message>
    <message>
        <source>connecting</source>
        <translation>connecting</translation>
    </message>
    <message>
        <source>synced today %@</source>
        <translation>synced today %@</translation>
    </message>
    <message>
        <source>synced yesterday %@</source>
        <translation>synced yesterday %@</translation>
    </message>
    <message>
        <source>synced %@</source>
        <translation>synced %@</translation>
    </message>
    <message>
        <source>offline</source>
        <translation>offline</translation>
    </message>
    <message>
        <source>error - %@</source>
        <translation>error - %@</translation>
    </message>
    <message>
        <source>synchronizing...</source>
        <translation>synchronizing...</translation>
    </message>
</context>
</TS>
